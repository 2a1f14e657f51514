// Test doubles for the resumable upload: a host IConnection that records every request and lets the
// test answer each one when it chooses, and a recorder for the upload's final callback.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "quire/connection/i_connection.h"

namespace quire_test::upload {

using kestrel::quire::ConnectionParams;
using kestrel::quire::IConnection;
using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResponseCallback;
using Lines = std::vector<QString>;

inline QString S(const char* text) { return QString::fromUtf8(text); }

// One request as the connection received it.
struct SentRequest {
  unsigned int id = 0;
  std::uint32_t method = 0;
  QString url;
  bool had_body = false;
  QByteArray body;  // shares the caller's bytes, like a real connection does
  const char* body_data = nullptr;
  long long body_size = 0;
  bool had_headers = false;
  Lines headers;
  bool collect_response_headers = false;
  std::uint32_t requested_id = 0;
  ResponseCallback callback;
  bool answered = false;
};

// A host connection that hands out ids from `first_id` on and completes a request only when the
// test answers it, never inside Request().
class FakeConnection : public IConnection {
 public:
  explicit FakeConnection(unsigned int first_id = 100) : next_id_(first_id) {}

  void Init(const std::vector<QString>&) override {}

  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override {
    SentRequest sent;
    sent.id = params.request_id != 0 ? params.request_id : next_id_++;
    sent.method = params.method;
    sent.url = params.url;
    sent.had_body = params.body != nullptr;
    if (params.body != nullptr) {
      sent.body = *params.body;
      sent.body_data = params.body->constData();
      sent.body_size = params.body->size();
    }
    sent.had_headers = params.headers != nullptr;
    if (params.headers != nullptr) sent.headers = *params.headers;
    sent.collect_response_headers = params.collect_response_headers;
    sent.requested_id = params.request_id;
    sent.callback = std::move(callback);
    requests_.push_back(std::move(sent));
    return requests_.back().id;
  }

  void Cancel(unsigned int) override {}

  // Completes request `index` with `status`, the header lines `headers` (a null list when
  // `null_headers`) and `body`. The list handed over is freed when the callback returns, as a real
  // connection does; last_headers() tells where it was.
  void Answer(std::size_t index, int status, const Lines& headers = {},
              const QByteArray& body = QByteArray(), bool null_headers = false) {
    ASSERT_LT(index, requests_.size());
    ASSERT_FALSE(requests_[index].answered) << "request " << index << " answered twice";
    requests_[index].answered = true;
    ResponseCallback callback = std::move(requests_[index].callback);
    requests_[index].callback = nullptr;
    auto* list = new Lines(headers);
    last_headers_ = null_headers ? nullptr : list;
    callback(NetworkResponseInfo{requests_[index].id, status, last_headers_}, body);
    delete list;
  }

  // Answers the most recent request.
  void AnswerLast(int status, const Lines& headers = {}, const QByteArray& body = QByteArray(),
                  bool null_headers = false) {
    ASSERT_FALSE(requests_.empty());
    Answer(requests_.size() - 1, status, headers, body, null_headers);
  }

  std::size_t pending() const {
    std::size_t count = 0;
    for (const SentRequest& sent : requests_) count += sent.answered ? 0 : 1;
    return count;
  }

  const std::deque<SentRequest>& requests() const { return requests_; }
  const SentRequest& last() const { return requests_.back(); }
  const Lines* last_headers() const { return last_headers_; }

 private:
  unsigned int next_id_;
  std::deque<SentRequest> requests_;
  const Lines* last_headers_ = nullptr;
};

// One call of an upload's final callback, copied out while the callback ran.
struct Outcome {
  NetworkResponseInfo info{};
  const Lines* headers_pointer = nullptr;
  Lines headers;
  QByteArray body;  // a deep copy
  bool body_is_empty = true;
};

// Collects the outcomes of one upload; the test checks that exactly one arrives.
class OutcomeRecorder {
 public:
  ResponseCallback Callback() {
    return [this](NetworkResponseInfo info, QByteArray body) {
      Outcome outcome;
      outcome.info = info;
      outcome.headers_pointer = info.headers;
      if (info.headers != nullptr) outcome.headers = *info.headers;
      outcome.body = QByteArray(body.constData(), body.size());
      outcome.body_is_empty = body.isEmpty();
      outcomes_.push_back(outcome);
    };
  }

  std::size_t count() const { return outcomes_.size(); }
  const Outcome& only() const {
    EXPECT_EQ(outcomes_.size(), 1u) << "the callback must be called exactly once";
    static const Outcome kNone{NetworkResponseInfo{0, -1, nullptr}, nullptr, {}, {}, true};
    return outcomes_.empty() ? kNone : outcomes_.front();
  }

 private:
  std::vector<Outcome> outcomes_;
};

// Checks an upload that the library ended itself without an answer to pass on: status 2 for the
// request `request_id`, no response lines and no body.
inline void ExpectMadeUpFailure(const Outcome& outcome, unsigned int request_id) {
  EXPECT_EQ(outcome.info.status, 2);
  EXPECT_EQ(outcome.info.request_id, request_id);
  EXPECT_EQ(outcome.headers_pointer, nullptr);
  EXPECT_TRUE(outcome.body_is_empty);
}

}  // namespace quire_test::upload
