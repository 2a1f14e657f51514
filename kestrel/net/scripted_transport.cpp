#include "kestrel/net/scripted_transport.h"

#include <algorithm>
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

std::size_t ScriptedTransport::sink_pauses() const { return shared_->sink_pauses; }

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
  // Whether the request is still waiting for its answer (not cancelled meanwhile).
  auto live = [request, shared, serial] {
    auto entry = shared->pending.find(request);
    return entry != shared->pending.end() && entry->second.serial == serial;
  };
  // `via_sink`: the body went to the request's sink (else to its buffer); `sink_stopped`: the sink
  // stopped the transfer.
  auto complete = [request, shared, live, sent](const Answer& answer, bool via_sink,
                                                bool sink_stopped) {
    if (!live()) return;  // cancelled
    shared->pending.erase(request);
    if (request->report_progress()) {
      TransferProgress last;
      last.bytes_sent = sent;
      last.bytes_to_send = sent;
      last.bytes_received = answer.has_body ? answer.body.size() : 0;
      last.bytes_to_receive = last.bytes_received;
      if (request->UpdateProgress(last)) request->DeliverProgress();
    }
    HttpRequest* response = request->GetHttpRequest();
    response->SetResponseStatus(sink_stopped ? status::kErrorUnknown : answer.code);
    if (answer.has_body && !via_sink) {
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

  ResponseSink* sink = request->response_sink();
  int head_status = answer.head_status;
  if (head_status == 0 && answer.code >= status::kHttpSuccessBase &&
      answer.code < status::kHttpSuccessBase + 1000) {
    head_status = static_cast<int>(answer.code - status::kHttpSuccessBase);
  }
  if (sink != nullptr && answer.has_body && head_status >= 200 && head_status <= 299) {
    // Delivery through the sink: the head, then the pieces back to back, waiting while the sink
    // is full; the completion after the last piece. A cancellation ends the delivery.
    struct Delivery {
      Answer answer;
      int head_status;
      std::size_t offset = 0;
      bool head_sent = false;
    };
    auto delivery = std::make_shared<Delivery>();
    delivery->answer = std::move(answer);
    delivery->head_status = head_status;
    auto step = std::make_shared<std::function<void()>>();
    *step = [request, sink, shared, delivery, complete, live,
             weak = std::weak_ptr<std::function<void()>>(step)] {
      auto self = weak.lock();
      if (!live()) {
        sink->SetWaker({});
        return;
      }
      const Answer& scripted = delivery->answer;
      if (!delivery->head_sent) {
        delivery->head_sent = true;
        std::vector<QString> lines;
        if (request->keep_response_headers()) lines = scripted.headers;
        sink->PushHead(delivery->head_status, std::move(lines));
      }
      const std::size_t size = static_cast<std::size_t>(scripted.body.size());
      bool stopped = false;
      while (!stopped && delivery->offset < size) {
        std::size_t piece = scripted.piece_size == 0 ? size : scripted.piece_size;
        piece = std::min(piece, size - delivery->offset);
        switch (sink->Push(scripted.body.constData() + delivery->offset, piece)) {
          case ResponseSink::PushResult::kTaken:
            delivery->offset += piece;
            continue;
          case ResponseSink::PushResult::kFull:
            ++shared->sink_pauses;
            sink->SetWaker([self] { MainLoop::Default()->Post([self] { (*self)(); }); });
            return;
          case ResponseSink::PushResult::kStopped:
            stopped = true;
            break;
        }
      }
      sink->SetWaker({});
      // Posted, so that it comes after the sink's delivery of what was pushed.
      MainLoop::Default()->Post(
          [sink, delivery, complete] { complete(delivery->answer, true, sink->stopped()); });
    };
    // The step keeps itself alive through the jobs it posts and the waker it leaves.
    auto first = [step] { (*step)(); };
    if (delay_seconds > 0) {
      timers.push_back(MainLoop::Default()->PostTimer(delay_seconds, std::move(first)));
    } else {
      MainLoop::Default()->Post(std::move(first));
    }
    return;
  }

  auto whole = [complete, answer = std::move(answer)] { complete(answer, false, false); };
  if (delay_seconds > 0) {
    timers.push_back(MainLoop::Default()->PostTimer(delay_seconds, std::move(whole)));
  } else {
    MainLoop::Default()->Post(std::move(whole));
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
