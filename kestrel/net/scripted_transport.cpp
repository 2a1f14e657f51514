#include "kestrel/net/scripted_transport.h"

#include <utility>

#include "kestrel/base/main_loop.h"

namespace kestrel {
namespace net {

ScriptedTransport::ScriptedTransport() : shared_(std::make_shared<Shared>()) {}

ScriptedTransport::~ScriptedTransport() = default;

void ScriptedTransport::Enqueue(Answer answer) { answers_.push_back(std::move(answer)); }

void ScriptedTransport::Enqueue(std::uint32_t code, const QByteArray& body,
                                std::vector<QString> headers) {
  Answer answer;
  answer.code = code;
  answer.body = body;
  answer.headers = std::move(headers);
  Enqueue(std::move(answer));
}

void ScriptedTransport::SetResponder(Responder responder) { responder_ = std::move(responder); }

std::size_t ScriptedTransport::completed() const { return shared_->completed; }

std::size_t ScriptedTransport::cancelled() const { return shared_->cancelled; }

const char* ScriptedTransport::last_response_data() const { return shared_->last_response_data; }

void ScriptedTransport::Start(NetworkRequest* request, const ServerInfo& server,
                              const ConnectionOptions& options) {
  ++started_;
  const HttpRequest* http = request->GetHttpRequest();
  Seen seen;
  seen.method = http->method();
  seen.url = http->url();
  seen.headers.assign(http->headers().begin(), http->headers().end());
  if (record_bodies_) seen.body = http->body();
  seen.body_data = http->body().constData();
  seen.body_size = static_cast<std::size_t>(http->body().size());
  seen.server_valid = server.valid();
  seen.host = server.host();
  seen.port = server.port();
  seen.options = options;
  seen.default_headers = request->default_headers();
  seen.keep_response_headers = request->keep_response_headers();
  seen.user_data = request->user_data();

  Answer answer;
  if (!server.valid()) {
    answer.code = status::kErrorInvalidRequest;
    answer.has_body = false;
  } else if (!answers_.empty()) {
    answer = std::move(answers_.front());
    answers_.pop_front();
  } else if (responder_) {
    answer = responder_(seen);
  } else {
    answer.code = status::kErrorUnknown;
    answer.has_body = false;
  }
  if (record_requests_) requests_.push_back(std::move(seen));

  std::shared_ptr<Shared> shared = shared_;
  Shared::Pending& entry = shared->pending[request];
  const std::uint64_t serial = shared->next_serial++;
  entry.serial = serial;
  std::vector<std::uint64_t>& timers = entry.timers;
  if (request->report_progress()) {
    for (const auto& step : answer.progress) {
      const TransferProgress figures = step.second;
      timers.push_back(
          MainLoop::Default()->PostTimer(step.first, [request, shared, serial, figures] {
            auto entry = shared->pending.find(request);
            if (entry == shared->pending.end() || entry->second.serial != serial) return;  // over
            if (request->UpdateProgress(figures)) request->DeliverProgress();
          }));
    }
  }
  const double delay_seconds = answer.delay_seconds;
  const auto sent = static_cast<std::int64_t>(http->body().size());
  auto complete = [request, shared, serial, sent, answer = std::move(answer)] {
    auto entry = shared->pending.find(request);
    if (entry == shared->pending.end() || entry->second.serial != serial) return;  // cancelled
    shared->pending.erase(entry);
    if (request->report_progress()) {
      TransferProgress last;
      last.bytes_sent = sent;
      last.bytes_to_send = sent;
      last.bytes_received = answer.has_body ? answer.body.size() : 0;
      last.bytes_to_receive = last.bytes_received;
      if (request->UpdateProgress(last)) request->DeliverProgress();
    }
    HttpRequest* response = request->GetHttpRequest();
    response->SetResponseStatus(answer.code);
    if (answer.has_body) {
      ByteBuffer* buffer = response->MutableResponseBuffer();
      buffer->Append(answer.body.constData(), static_cast<std::size_t>(answer.body.size()));
      shared->last_response_data = buffer->data();
    } else {
      shared->last_response_data = nullptr;
    }
    if (request->keep_response_headers()) {
      for (const QString& line : answer.headers) response->AddResponseHeader(line);
    }
    ++shared->completed;
    request->Complete();
    NetworkRequest::ReleaseRef(request);
  };
  if (delay_seconds > 0) {
    timers.push_back(MainLoop::Default()->PostTimer(delay_seconds, std::move(complete)));
  } else {
    MainLoop::Default()->Post(std::move(complete));
  }
}

void ScriptedTransport::Cancel(NetworkRequest* request) {
  auto pending = shared_->pending.find(request);
  if (pending == shared_->pending.end()) return;
  // Whatever has not run yet is taken back, so the request's memory goes with the completion below.
  for (std::uint64_t timer : pending->second.timers) MainLoop::Default()->CancelTimer(timer);
  shared_->pending.erase(pending);
  std::shared_ptr<Shared> shared = shared_;
  MainLoop::Default()->Post([request, shared] {
    shared->last_response_data = nullptr;
    ++shared->completed;
    ++shared->cancelled;
    request->Complete();
    NetworkRequest::ReleaseRef(request);
  });
}

}  // namespace net
}  // namespace kestrel
