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
  const double delay_seconds = answer.delay_seconds;
  auto complete = [request, shared, answer = std::move(answer)] {
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
    MainLoop::Default()->PostDelayed(delay_seconds, std::move(complete));
  } else {
    MainLoop::Default()->Post(std::move(complete));
  }
}

}  // namespace net
}  // namespace kestrel
