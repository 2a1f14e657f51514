// A resumable-upload session played by the scripted transport: it answers the opening POST with a
// session address, stores the bytes of each PUT at the position its Content-Range says, answers 308
// with the Range it holds (or 201 with an entry once it holds everything), and answers status
// queries ("bytes */TOTAL"). Tests switch faults on for chosen requests.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "kestrel/net/network_status.h"
#include "kestrel/net/scripted_transport.h"

namespace quire_test {

class ScriptedUploadSession {
 public:
  using Answer = kestrel::net::ScriptedTransport::Answer;
  using Seen = kestrel::net::ScriptedTransport::Seen;

  // What a fault does to the request with a given number (counting every request from 0).
  struct Fault {
    // Replaces the answer entirely (the session stores nothing of the request), unless
    // `store_bytes` is set: then the first `store_bytes` bytes of the PUT are stored first (a
    // connection that broke after part of the chunk arrived).
    Answer answer;
    long long store_bytes = -1;
  };

  explicit ScriptedUploadSession(
      QString session_url = QStringLiteral("https://docs.quire.example/upload/session-1"))
      : session_url_(std::move(session_url)) {}

  // Installs the session as `transport`'s responder.
  void Install(kestrel::net::ScriptedTransport* transport) {
    transport->SetResponder([this](const Seen& seen) { return Respond(seen); });
  }

  void SetFault(int request_number, Fault fault) { faults_[request_number] = std::move(fault); }
  // Every later request answers with `answer` (e.g. 503 for ever).
  void FailFrom(int request_number, Answer answer) { fail_from_ = {request_number, answer}; }

  // Sets what the session holds (for resuming); `total` as announced.
  void Preload(const QByteArray& held, long long total) {
    data_ = held;
    total_ = total;
    opened_ = true;
  }
  // Makes the session forget it exists: PUTs to it answer 404 until a new POST opens one.
  void Drop() { gone_ = true; }
  // The Range answers report this many bytes less than held (a server that lost bytes) once.
  void LoseOnce(long long bytes) { lose_once_ = bytes; }

  const QByteArray& data() const { return data_; }
  long long total() const { return total_; }
  int requests() const { return requests_; }
  int posts() const { return posts_; }
  bool finished() const { return finished_; }
  // The Content-Range lines of the PUTs, in order.
  const std::vector<QString>& ranges() const { return ranges_; }

  static QString HeaderValue(const Seen& seen, const QString& name) {
    for (const auto& header : seen.headers) {
      if (header.name.startsWith(name + QStringLiteral(": "))) {
        return header.name.mid(name.size() + 2);
      }
    }
    return QString();
  }

 private:
  Answer Respond(const Seen& seen) {
    const int number = requests_++;
    auto fault = faults_.find(number);
    if (fault != faults_.end() && fault->second.store_bytes < 0) return fault->second.answer;
    if (fail_from_.first >= 0 && number >= fail_from_.first) return fail_from_.second;
    if (seen.method == kestrel::net::HttpRequest::kPost) {
      ++posts_;
      total_ = HeaderValue(seen, QStringLiteral("X-Upload-Content-Length")).toLongLong();
      data_.clear();
      opened_ = true;
      gone_ = false;
      finished_ = false;
      Answer answer;
      answer.code = kestrel::net::status::FromHttp(200);
      answer.headers = {QStringLiteral("Location: ") + session_url_};
      return answer;
    }
    if (gone_ || !opened_ || finished_ || seen.url != session_url_) {
      Answer answer;
      answer.code = kestrel::net::status::FromHttp(404);
      return answer;
    }
    const QString range = HeaderValue(seen, QStringLiteral("Content-Range"));
    ranges_.push_back(range);
    if (!range.startsWith(QStringLiteral("bytes */"))) {
      // bytes A-B/T
      const QString spec = range.mid(6);
      const long long first = spec.section(QLatin1Char('-'), 0, 0).toLongLong();
      const long long last =
          spec.section(QLatin1Char('-'), 1).section(QLatin1Char('/'), 0, 0).toLongLong();
      const long long total = spec.section(QLatin1Char('/'), 1).toLongLong();
      long long length = last - first + 1;
      if (total != total_ || length != static_cast<long long>(seen.body.size()) ||
          first > data_.size()) {
        Answer answer;
        answer.code = kestrel::net::status::FromHttp(400);
        return answer;
      }
      if (fault != faults_.end()) length = std::min(length, fault->second.store_bytes);
      if (first + length > data_.size()) data_.resize(static_cast<int>(first + length));
      std::copy(seen.body.constData(), seen.body.constData() + length, data_.data() + first);
      if (fault != faults_.end()) return fault->second.answer;
    }
    Answer answer;
    if (data_.size() == total_) {
      finished_ = true;
      answer.code = kestrel::net::status::FromHttp(201);
      answer.body = "<entry/>";
      return answer;
    }
    answer.code = kestrel::net::status::FromHttp(308);
    long long held = data_.size();
    if (lose_once_ > 0) {
      held = std::max(0LL, held - lose_once_);
      data_.truncate(static_cast<int>(held));
      lose_once_ = 0;
    }
    if (held > 0) answer.headers = {QStringLiteral("Range: bytes=0-%1").arg(held - 1)};
    return answer;
  }

  QString session_url_;
  std::map<int, Fault> faults_;
  std::pair<int, Answer> fail_from_{-1, Answer()};
  QByteArray data_;
  long long total_ = 0;
  long long lose_once_ = 0;
  bool opened_ = false;
  bool gone_ = false;
  bool finished_ = false;
  int requests_ = 0;
  int posts_ = 0;
  std::vector<QString> ranges_;
};

}  // namespace quire_test
