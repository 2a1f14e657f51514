#include "kestrel/net/scripted_transport.h"

#include <gtest/gtest.h>

#include <chrono>

#include "kestrel/net/connection_manager.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::net::ConnectionManager;
using kestrel::net::HttpRequest;
using kestrel::net::NetworkRequest;
using kestrel::net::RequestHeaderList;
using kestrel::net::ServerInfo;

class Recorder : public NetworkRequest::Callback {
 public:
  void OnRequestComplete(NetworkRequest* request) override {
    ++calls;
    status = request->GetHttpRequest()->GetResponseStatus();
    const auto* buffer = request->GetHttpRequest()->GetResponseBuffer();
    body =
        buffer ? QByteArray(buffer->data(), static_cast<qsizetype>(buffer->size())) : QByteArray();
    had_buffer = buffer != nullptr;
    for (int i = 0; i < request->GetHttpRequest()->GetResponseHeaderCount(); ++i) {
      headers.push_back(*request->GetHttpRequest()->GetResponseHeader(i));
    }
  }
  void OnRequestProgress(NetworkRequest* request) override {
    EXPECT_EQ(calls, 0) << "no progress after completion";
    progress.push_back(request->progress());
  }
  int calls = 0;
  std::vector<kestrel::net::TransferProgress> progress;
  std::uint32_t status = 0;
  QByteArray body;
  bool had_buffer = false;
  std::vector<QString> headers;
};

class ScriptedTransportTest : public quire_test::ScriptedTest {};

NetworkRequest* Issue(ConnectionManager& manager, Recorder* recorder, const QString& url,
                      const QByteArray& body = QByteArray(), bool report_progress = false) {
  RequestHeaderList headers;
  headers.push_back({0, QStringLiteral("X-One: 1"), QString()});
  NetworkRequest::Info info(HttpRequest::kPut, body, url, std::move(headers), true, recorder,
                            nullptr, NetworkRequest::Info::kStandard);
  info.report_progress = report_progress;
  ServerInfo server(url);
  return manager.StartRequest(server, info);
}

// The fixture's end-of-test check relies on it: answers that no request took stay counted.
TEST_F(ScriptedTransportTest, CountsTheAnswersNoRequestTookYet) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  EXPECT_EQ(transport_.queued(), 0u);
  transport_.Enqueue(quire_test::Http(200), "first");
  transport_.Enqueue(quire_test::Http(201), "second");
  EXPECT_EQ(transport_.queued(), 2u);
  Recorder recorder;
  Issue(manager, &recorder, QStringLiteral("https://h.example/a"));
  EXPECT_EQ(transport_.queued(), 1u) << "taken when the request starts";
  RunUntilIdle();
  EXPECT_EQ(recorder.body, QByteArray("first"));
  Issue(manager, &recorder, QStringLiteral("https://h.example/b"));
  RunUntilIdle();
  EXPECT_EQ(recorder.body, QByteArray("second"));
  EXPECT_EQ(transport_.queued(), 0u);
}

TEST_F(ScriptedTransportTest, CompletesLaterWithTheScriptedAnswer) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  transport_.Enqueue(quire_test::Http(201), "made", {QStringLiteral("Location: /x")});
  Recorder recorder;
  const QByteArray body("payload");
  Issue(manager, &recorder, QStringLiteral("https://h.example/a"), body);
  EXPECT_EQ(recorder.calls, 0) << "must not complete inside StartRequest";
  EXPECT_EQ(transport_.in_flight(), 1u);
  RunUntilIdle();
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_EQ(recorder.status, quire_test::Http(201));
  EXPECT_EQ(recorder.body, QByteArray("made"));
  EXPECT_EQ(recorder.headers, std::vector<QString>{QStringLiteral("Location: /x")});

  ASSERT_EQ(transport_.requests().size(), 1u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.method, HttpRequest::kPut);
  EXPECT_EQ(seen.url, QStringLiteral("https://h.example/a"));
  EXPECT_EQ(seen.host, QStringLiteral("h.example"));
  EXPECT_EQ(seen.port, 443);
  EXPECT_EQ(seen.body_data, body.constData()) << "the body must reach the transport without a copy";
  EXPECT_EQ(seen.body_size, 7u);
  ASSERT_EQ(seen.headers.size(), 1u);
  EXPECT_EQ(seen.headers[0].name, QStringLiteral("X-One: 1"));
  quire_test::ExpectConnectionDefaults(seen.options);
}

TEST_F(ScriptedTransportTest, AnswersWithoutBufferAndUnscriptedRequestsFail) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  kestrel::net::ScriptedTransport::Answer answer;
  answer.has_body = false;
  transport_.Enqueue(answer);
  Recorder first, second, invalid;
  Issue(manager, &first, QStringLiteral("http://h.example/a"));
  Issue(manager, &second, QStringLiteral("http://h.example/b"));
  Issue(manager, &invalid, QStringLiteral("ftp://h.example/c"));
  RunUntilIdle();
  EXPECT_FALSE(first.had_buffer);
  EXPECT_EQ(second.status, kestrel::net::status::kErrorUnknown);
  EXPECT_EQ(invalid.status, kestrel::net::status::kErrorInvalidRequest);
}

TEST_F(ScriptedTransportTest, ResponderSeesTheRequest) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  transport_.SetResponder([](const kestrel::net::ScriptedTransport::Seen& seen) {
    kestrel::net::ScriptedTransport::Answer answer;
    answer.body = seen.url.toUtf8();
    return answer;
  });
  Recorder recorder;
  Issue(manager, &recorder, QStringLiteral("http://h.example/echo"));
  RunUntilIdle();
  EXPECT_EQ(recorder.body, QByteArray("http://h.example/echo"));
}

TEST_F(ScriptedTransportTest, DelayedAnswersArriveAfterTheirDelay) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  kestrel::net::ScriptedTransport::Answer slow;
  slow.delay_seconds = 0.05;
  slow.body = "slow";
  transport_.Enqueue(slow);
  transport_.Enqueue(quire_test::Http(200), "fast");
  Recorder a, b;
  Issue(manager, &a, QStringLiteral("http://h.example/1"));
  Issue(manager, &b, QStringLiteral("http://h.example/2"));
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(a.calls, 0);
  EXPECT_EQ(b.calls, 1);
  RunUntil([&] { return a.calls == 1; });
}

TEST_F(ScriptedTransportTest, CancelDropsTheAnswerAndCompletesOnceAsCancelled) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  kestrel::net::ScriptedTransport::Answer slow;
  slow.code = quire_test::Http(200);
  slow.body = "late";
  slow.headers = {QStringLiteral("X-Late: 1")};
  slow.delay_seconds = 30;
  transport_.Enqueue(slow);
  Recorder recorder;
  NetworkRequest* request = Issue(manager, &recorder, QStringLiteral("https://h.example/a"));
  NetworkRequest::AddRef(request);
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  manager.CancelRequest(request);
  manager.CancelRequest(request);  // twice: nothing more happens
  EXPECT_EQ(recorder.calls, 0) << "must not complete inside CancelRequest";
  EXPECT_TRUE(request->cancelled());
  const auto start = std::chrono::steady_clock::now();
  RunUntil([&] { return recorder.calls == 1; });
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(recorder.status, kestrel::net::status::kErrorCancelled);
  EXPECT_TRUE(recorder.body.isEmpty());
  EXPECT_TRUE(recorder.headers.empty());
  EXPECT_EQ(transport_.cancelled(), 1u);
  EXPECT_EQ(transport_.in_flight(), 0u);
  manager.CancelRequest(request);  // after completion: ignored
  NetworkRequest::ReleaseRef(request);
  EXPECT_LT(kestrel::MemoryManager::Default()->live_allocations(), live)
      << "the request must be freed once its completion ran";
  EXPECT_EQ(kestrel::MainLoop::Default()->pending(), 0u) << "the delayed answer must be gone";
  EXPECT_EQ(recorder.calls, 1);
}

TEST_F(ScriptedTransportTest, AnAnswerThatArrivedButWasNotReportedCompletesAsCancelled) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  transport_.Enqueue(quire_test::Http(200), "ready", {QStringLiteral("X-A: 1")});
  Recorder recorder;
  NetworkRequest* request = Issue(manager, &recorder, QStringLiteral("https://h.example/a"));
  NetworkRequest::AddRef(request);
  manager.CancelRequest(request);
  RunUntilIdle();
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_EQ(recorder.status, kestrel::net::status::kErrorCancelled);
  EXPECT_TRUE(recorder.body.isEmpty());
  NetworkRequest::ReleaseRef(request);
}

TEST_F(ScriptedTransportTest, ProgressReportsComeBeforeTheCompletionAndOnlyWhenAskedFor) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  kestrel::net::ScriptedTransport::Answer answer;
  answer.code = quire_test::Http(200);
  answer.body = "0123456789";
  answer.delay_seconds = 0.05;
  kestrel::net::TransferProgress half;
  half.bytes_sent = 3;
  half.bytes_to_send = 6;
  answer.progress = {{0.01, half}};
  transport_.Enqueue(answer);
  transport_.Enqueue(answer);
  Recorder with;
  Recorder without;
  Issue(manager, &with, QStringLiteral("https://h.example/a"), "abcdef", true);
  Issue(manager, &without, QStringLiteral("https://h.example/a"), "abcdef", false);
  RunUntil([&] { return with.calls == 1 && without.calls == 1; });
  EXPECT_TRUE(without.progress.empty());
  ASSERT_EQ(with.progress.size(), 2u);
  EXPECT_EQ(with.progress[0].bytes_sent, 3);
  EXPECT_EQ(with.progress[0].bytes_to_send, 6);
  EXPECT_EQ(with.progress[1].bytes_sent, 6);
  EXPECT_EQ(with.progress[1].bytes_to_send, 6);
  EXPECT_EQ(with.progress[1].bytes_received, 10);
  EXPECT_EQ(with.progress[1].bytes_to_receive, 10);
}

TEST_F(ScriptedTransportTest, ACancelledRequestHearsNoMoreProgress) {
  ConnectionManager manager(4, 2, true, 60.0, 60);
  kestrel::net::ScriptedTransport::Answer answer;
  answer.delay_seconds = 0.2;
  kestrel::net::TransferProgress some;
  some.bytes_sent = 1;
  answer.progress = {{0.1, some}};
  transport_.Enqueue(answer);
  Recorder recorder;
  NetworkRequest* request =
      Issue(manager, &recorder, QStringLiteral("https://h.example/a"), "ab", true);
  NetworkRequest::AddRef(request);
  manager.CancelRequest(request);
  RunUntilIdle();
  kestrel::MainLoop::Default()->RunUntil([] { return false; }, 0.25);
  EXPECT_EQ(recorder.calls, 1);
  EXPECT_TRUE(recorder.progress.empty());
  NetworkRequest::ReleaseRef(request);
}

}  // namespace
