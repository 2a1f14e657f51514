// Cancellation and byte progress through the HTTPS transport: a cancelled transfer leaves the wire
// at once and completes exactly once as cancelled; progress reports come while bytes move, in
// order, before the completion.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/server_info.h"
#include "quire/connection/connection.h"
#include "tests/kestrel/net/curl_test_support.h"
#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

using kestrel::net::TransferProgress;

// Records completion and every progress report; cancels its own request after the first report
// when asked to.
class ProgressRecorder : public NetworkRequest::Callback {
 public:
  void OnRequestComplete(NetworkRequest* request) override {
    ++calls;
    code = request->GetHttpRequest()->GetResponseStatus();
    const auto* buffer = request->GetHttpRequest()->GetResponseBuffer();
    body_size = buffer != nullptr ? buffer->size() : 0;
    headers = request->GetHttpRequest()->GetResponseHeaderCount();
    completed_at = std::chrono::steady_clock::now();
  }
  void OnRequestProgress(NetworkRequest* request) override {
    EXPECT_EQ(calls, 0) << "progress after completion";
    reports.push_back(request->progress());
    if (cancel_on_first_report && manager != nullptr && reports.size() == 1) {
      cancelled_at = std::chrono::steady_clock::now();
      manager->CancelRequest(request);
    }
  }

  int calls = 0;
  std::uint32_t code = 0;
  std::size_t body_size = 0;
  int headers = 0;
  std::vector<TransferProgress> reports;
  bool cancel_on_first_report = false;
  ConnectionManager* manager = nullptr;
  std::chrono::steady_clock::time_point cancelled_at;
  std::chrono::steady_clock::time_point completed_at;
};

class CurlCancelTest : public CurlTest {
 protected:
  // Runs the main loop until `done` holds, checking it at least every 10 ms, since what it watches
  // may change on a server thread without any job arriving.
  void Poll(const std::function<bool()>& done, double seconds = 5.0) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done() && std::chrono::steady_clock::now() < until) {
      kestrel::MainLoop::Default()->RunUntil(done, 0.01);
    }
    ASSERT_TRUE(done()) << "timed out";
  }

  NetworkRequest* Start(ConnectionManager* manager, ProgressRecorder* recorder,
                        HttpRequest::MethodType method, const QString& url,
                        const QByteArray& body = QByteArray(), bool progress = true) {
    NetworkRequest::Info info(method, body, url, {}, true, recorder, nullptr,
                              NetworkRequest::Info::kStandard);
    info.report_progress = progress;
    ServerInfo server(url);
    NetworkRequest* request = manager->StartRequest(server, info);
    NetworkRequest::AddRef(request);
    return request;
  }
};

TEST_F(CurlCancelTest, CancellingARequestThatGetsNoAnswerEndsItAtOnce) {
  const auto raw = ServeDocsFrom({{"", Reply::kDrain}});
  ASSERT_NE(raw, nullptr);
  ConnectionManager manager(4, 2, true, 60.0, 60);
  ProgressRecorder recorder;
  NetworkRequest* request =
      Start(&manager, &recorder, HttpRequest::kGet, DocsUrl(QStringLiteral("/hang")));
  Poll([&] { return raw->requests().size() == 1; });
  const auto cancelled_at = std::chrono::steady_clock::now();
  manager.CancelRequest(request);
  EXPECT_EQ(recorder.calls, 0) << "never inside CancelRequest";
  RunUntil([&] { return recorder.calls > 0; }, 5.0);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_EQ(recorder.code, status::kErrorCancelled);
  EXPECT_LT(recorder.completed_at - cancelled_at, std::chrono::seconds(2))
      << "the 60-second stall time-out must not be waited out";
  // The I/O thread counts the transfer out just after it posted the completion.
  Poll([&] { return transport_->in_flight() == 0; }, 2.0);
  EXPECT_TRUE(raw->WaitForClosedConnections(1, 5.0)) << "the connection must leave the wire";
  NetworkRequest::ReleaseRef(request);
}

TEST_F(CurlCancelTest, CancellingRightAfterTheStartAndTwiceCompletesOnce) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  std::vector<ProgressRecorder> recorders(16);
  std::vector<NetworkRequest*> requests;
  for (ProgressRecorder& recorder : recorders) {
    requests.push_back(Start(&manager, &recorder, HttpRequest::kGet,
                             DocsUrl(QStringLiteral("/bytes/1000")), QByteArray(), false));
  }
  for (NetworkRequest* request : requests) {
    manager.CancelRequest(request);
    manager.CancelRequest(request);
  }
  RunUntil([&] {
    for (const ProgressRecorder& recorder : recorders) {
      if (recorder.calls == 0) return false;
    }
    return true;
  });
  kestrel::MainLoop::Default()->RunUntilIdle();
  for (const ProgressRecorder& recorder : recorders) {
    EXPECT_EQ(recorder.calls, 1);
    EXPECT_EQ(recorder.code, status::kErrorCancelled);
    EXPECT_EQ(recorder.body_size, 0u);
    EXPECT_EQ(recorder.headers, 0);
  }
  for (NetworkRequest* request : requests) {
    manager.CancelRequest(request);  // after completion: nothing happens
    NetworkRequest::ReleaseRef(request);
  }
}

TEST_F(CurlCancelTest, CancellingInTheMiddleOfTheBodyDropsWhatArrived) {
  // 300 KiB of a 1 MiB body, then nothing: the first progress report comes, and the cancel.
  std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 1048576\r\n\r\n";
  std::string part(300 * 1024, '\0');
  FillPattern(&part[0], 0, part.size());
  reply += part;
  const auto raw = ServeDocsFrom({{reply, Reply::kDrain}});
  ASSERT_NE(raw, nullptr);
  ConnectionManager manager(4, 2, true, 60.0, 60);
  ProgressRecorder recorder;
  recorder.manager = &manager;
  recorder.cancel_on_first_report = true;
  NetworkRequest* request =
      Start(&manager, &recorder, HttpRequest::kGet, DocsUrl(QStringLiteral("/part")));
  RunUntil([&] { return recorder.calls > 0; }, 10.0);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_EQ(recorder.code, status::kErrorCancelled);
  EXPECT_EQ(recorder.body_size, 0u) << "what arrived before the cancel is not handed out";
  ASSERT_EQ(recorder.reports.size(), 1u) << "no report after the cancel";
  EXPECT_GT(recorder.reports[0].bytes_received, 0);
  EXPECT_EQ(recorder.reports[0].bytes_to_receive, 1048576);
  EXPECT_LT(recorder.completed_at - recorder.cancelled_at, std::chrono::seconds(2));
  EXPECT_TRUE(raw->WaitForClosedConnections(1, 5.0));
  NetworkRequest::ReleaseRef(request);
}

TEST_F(CurlCancelTest, CancellingAnUploadInTheMiddleOfItsBody) {
  // The server reads the request head and nothing more: the body fills the socket buffers.
  const auto raw = ServeDocsFrom({{"", Reply::kDrain}});
  ASSERT_NE(raw, nullptr);
  ConnectionManager manager(4, 2, true, 60.0, 60);
  ProgressRecorder recorder;
  recorder.manager = &manager;
  recorder.cancel_on_first_report = true;
  QByteArray body(64 * 1024 * 1024, '\0');
  FillPattern(body.data(), 0, static_cast<std::size_t>(body.size()));
  NetworkRequest* request =
      Start(&manager, &recorder, HttpRequest::kPut, DocsUrl(QStringLiteral("/upload")), body);
  RunUntil([&] { return recorder.calls > 0; }, 10.0);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_EQ(recorder.code, status::kErrorCancelled);
  ASSERT_EQ(recorder.reports.size(), 1u);
  EXPECT_GT(recorder.reports[0].bytes_sent, 0);
  EXPECT_LT(recorder.reports[0].bytes_sent, body.size());
  EXPECT_EQ(recorder.reports[0].bytes_to_send, body.size());
  EXPECT_TRUE(raw->WaitForClosedConnections(1, 5.0));
  NetworkRequest::ReleaseRef(request);
}

TEST_F(CurlCancelTest, ProgressOfAnUploadAndADownloadMovesForwardWithoutFlooding) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  constexpr int kSize = 32 * 1024 * 1024;
  QByteArray body(kSize, '\0');
  FillPattern(body.data(), 0, static_cast<std::size_t>(body.size()));
  ProgressRecorder up;
  ProgressRecorder down;
  ProgressRecorder quiet;
  // One after the other: the fixture server is not meant for parallel connections.
  NetworkRequest* upload =
      Start(&manager, &up, HttpRequest::kPut, DocsUrl(QStringLiteral("/upload")), body);
  RunUntil([&] { return up.calls > 0; }, 60.0);
  NetworkRequest* download =
      Start(&manager, &down, HttpRequest::kGet, DocsUrl(QStringLiteral("/bytes/%1").arg(kSize)));
  RunUntil([&] { return down.calls > 0; }, 60.0);
  NetworkRequest* silent =
      Start(&manager, &quiet, HttpRequest::kGet, DocsUrl(QStringLiteral("/bytes/%1").arg(kSize)),
            QByteArray(), false);
  RunUntil([&] { return quiet.calls > 0; }, 60.0);
  EXPECT_EQ(up.code, status::FromHttp(200));
  EXPECT_EQ(down.code, status::FromHttp(200));
  EXPECT_EQ(down.body_size, static_cast<std::size_t>(kSize));
  EXPECT_TRUE(quiet.reports.empty()) << "no progress unless asked for";
  for (const ProgressRecorder* recorder : {&up, &down}) {
    ASSERT_GE(recorder->reports.size(), 2u);
    // At most one report per 256 KiB plus the time-driven ones: never one per libcurl callback.
    EXPECT_LE(recorder->reports.size(), static_cast<std::size_t>(kSize / (256 * 1024) + 200));
    for (std::size_t i = 1; i < recorder->reports.size(); ++i) {
      EXPECT_GE(recorder->reports[i].bytes_sent, recorder->reports[i - 1].bytes_sent);
      EXPECT_GE(recorder->reports[i].bytes_received, recorder->reports[i - 1].bytes_received);
    }
  }
  EXPECT_EQ(up.reports.back().bytes_sent, kSize) << "the last report has the final figures";
  EXPECT_EQ(up.reports.back().bytes_to_send, kSize);
  EXPECT_EQ(down.reports.back().bytes_received, kSize);
  EXPECT_EQ(down.reports.back().bytes_to_receive, kSize);
  EXPECT_EQ(down.reports.back().bytes_to_send, 0);
  for (NetworkRequest* request : {upload, download, silent}) NetworkRequest::ReleaseRef(request);
}

TEST_F(CurlCancelTest, ConnectionAbortStopsARequestAndTellsTheCode) {
  const auto raw = ServeDocsFrom({{"", Reply::kDrain}});
  ASSERT_NE(raw, nullptr);
  auto connection = MakeConnection();
  kestrel::quire::ConnectionParams params{
      kestrel::quire::kMethodGet, DocsUrl(QStringLiteral("/hang")), nullptr, nullptr, true, 0};
  int calls = 0;
  kestrel::quire::NetworkResponseInfo seen{0, -1, nullptr};
  bool had_headers = false;
  std::uint32_t code = 0;
  const unsigned int id = connection->StartTransfer(
      params,
      [&](kestrel::quire::NetworkResponseInfo info, QByteArray body, std::uint32_t network_code) {
        ++calls;
        seen = info;
        had_headers = info.headers != nullptr && info.headers->empty();
        code = network_code;
        EXPECT_TRUE(body.isEmpty());
      },
      kestrel::quire::ProgressCallback());
  Poll([&] { return raw->requests().size() == 1; });
  connection->Abort(id + 1);  // another id: nothing happens
  connection->Cancel(id);     // Cancel stays a no-op
  kestrel::MainLoop::Default()->RunUntil([] { return false; }, 0.2);
  EXPECT_EQ(calls, 0);
  connection->Abort(id);
  EXPECT_EQ(calls, 0) << "never inside Abort";
  RunUntil([&] { return calls > 0; }, 5.0);
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen.request_id, id);
  EXPECT_EQ(seen.status, kestrel::quire::kStatusFailure);
  EXPECT_TRUE(had_headers) << "an empty list, since they were asked for";
  EXPECT_EQ(code, status::kErrorCancelled);
  connection->Abort(id);  // finished: ignored
}

}  // namespace
}  // namespace quire_test::curl
