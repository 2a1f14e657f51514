// A host connection for the service tests: records what the service asks of it and lets the test
// answer each request later by calling the stored completion itself.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <vector>

#include "quire/connection/i_connection.h"

namespace quire_test {

// One request as the connection received it, copied while Request ran.
struct RecordedRequest {
  std::uint32_t method = 99;
  QString url;
  const QByteArray* body_pointer = nullptr;
  QByteArray body;  // a deep copy, when there was a body
  const std::vector<QString>* headers_pointer = nullptr;
  std::vector<QString> headers;  // a copy, when there was a list
  bool collect_response_headers = true;
  std::uint32_t requested_id = 99;
  unsigned int issued_id = 0;
  kestrel::quire::ResponseCallback done;
};

inline bool SameRequest(const RecordedRequest& a, const RecordedRequest& b) {
  return a.method == b.method && a.url == b.url &&
         (a.body_pointer == nullptr) == (b.body_pointer == nullptr) && a.body == b.body &&
         (a.headers_pointer == nullptr) == (b.headers_pointer == nullptr) &&
         a.headers == b.headers && a.collect_response_headers == b.collect_response_headers &&
         a.requested_id == b.requested_id;
}

// What happened to connections of this kind, kept outside them so that tests can look after the
// service has deleted its connection.
struct ConnectionLog {
  std::vector<std::vector<QString>> init_calls;
  std::vector<unsigned int> cancels;
  std::vector<RecordedRequest> requests;
  int destroyed = 0;
};

class RecordingConnection : public kestrel::quire::IConnection {
 public:
  explicit RecordingConnection(ConnectionLog* log, unsigned int first_id = 1)
      : log_(log), next_id_(first_id) {}
  ~RecordingConnection() override { ++log_->destroyed; }

  void Init(const std::vector<QString>& headers) override { log_->init_calls.push_back(headers); }

  unsigned int Request(const kestrel::quire::ConnectionParams& params,
                       kestrel::quire::ResponseCallback callback) override {
    RecordedRequest seen;
    seen.method = params.method;
    seen.url = params.url;
    seen.body_pointer = params.body;
    if (params.body != nullptr)
      seen.body = QByteArray(params.body->constData(), params.body->size());
    seen.headers_pointer = params.headers;
    if (params.headers != nullptr) seen.headers = *params.headers;
    seen.collect_response_headers = params.collect_response_headers;
    seen.requested_id = params.request_id;
    seen.issued_id = params.request_id != 0 ? params.request_id : next_id_++;
    seen.done = std::move(callback);
    log_->requests.push_back(seen);
    return seen.issued_id;
  }

  void Cancel(unsigned int request_id) override { log_->cancels.push_back(request_id); }

 private:
  ConnectionLog* log_;
  unsigned int next_id_;
};

// Completes request `index` of `log` as the transport would: the stored callback is called with the
// request's id, `status`, `headers` and `body`. Each request is answered at most once.
inline void Answer(ConnectionLog* log, std::size_t index, std::int32_t status,
                   const QByteArray& body = QByteArray(),
                   const std::vector<QString>* headers = nullptr) {
  ASSERT_LT(index, log->requests.size());
  kestrel::quire::ResponseCallback done = std::move(log->requests[index].done);
  log->requests[index].done = nullptr;
  ASSERT_TRUE(static_cast<bool>(done)) << "request " << index << " answered twice";
  done(kestrel::quire::NetworkResponseInfo{log->requests[index].issued_id, status, headers}, body);
}

}  // namespace quire_test
