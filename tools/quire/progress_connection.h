// An IConnection that wraps another and watches a resumable upload go through it: it learns the
// session address from the answer to the opening POST and how many bytes the service holds from
// the answer to every PUT, and reports both (to a progress bar on a terminal, and to whoever keeps
// the upload's state). When the connection underneath reports byte progress (an
// ITransferConnection), the bar also moves while a chunk is on its way, and CancelAll() stops the
// requests in flight on the wire.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <vector>

#include "quire/connection/i_transfer_connection.h"

namespace quire_cli {

class ProgressBar;

class ProgressConnection : public kestrel::quire::IConnection {
 public:
  // Called when the service has opened an upload session, with its address ("Location").
  using SessionListener = std::function<void(const QString& session_url)>;
  // Called after every PUT answer that tells how many bytes the service holds.
  using ProgressListener = std::function<void(std::int64_t held, std::int64_t total)>;

  // Takes ownership of `inner` (deleted through the memory manager with this object). `bar` is
  // borrowed and may be null (no display, e.g. when the standard error is not a terminal).
  ProgressConnection(kestrel::quire::IConnection* inner, ProgressBar* bar);
  ~ProgressConnection() override;
  ProgressConnection(const ProgressConnection&) = delete;
  ProgressConnection& operator=(const ProgressConnection&) = delete;

  // The size of the upload, needed to turn answers into progress.
  void set_total(std::int64_t total) { total_ = total; }
  std::int64_t total() const { return total_; }
  // Marks the session as known without an opening POST (a resumed upload).
  void set_session_url(const QString& url) { session_url_ = url; }
  // The bytes held as known from an earlier connection of the same upload, until an answer here
  // says otherwise.
  void set_held(std::int64_t held) { held_ = held; }
  // Replaces the progress bar (borrowed, may be null); its clock starts now.
  void set_bar(ProgressBar* bar);
  void set_session_listener(SessionListener listener) { session_listener_ = std::move(listener); }
  void set_progress_listener(ProgressListener listener) {
    progress_listener_ = std::move(listener);
  }

  void Init(const std::vector<QString>& headers) override;
  // Forwards the request; its completion passes through this object first (POST: the session
  // address; PUT: the bytes held, from "Range" after a 308 or the whole size after a success).
  unsigned int Request(const kestrel::quire::ConnectionParams& params,
                       kestrel::quire::ResponseCallback callback) override;
  void Cancel(unsigned int request_id) override;
  // Stops every request in flight: through Abort() when the connection underneath can stop them
  // on the wire, else through its Cancel(). Their callbacks still come, each once, later.
  void CancelAll();

  // What the answers said so far: the session address (empty before it is known), the bytes that
  // the service holds, and how many PUT answers arrived.
  const QString& session_url() const { return session_url_; }
  std::int64_t held() const { return held_; }
  int put_answers() const { return put_answers_; }
  // The status of the request that completed last (-1 before the first): tells a failure of the
  // network from one that the upload code made of an answer it could not use.
  int last_status() const { return last_status_; }

  // The value of the header `name` in `headers` (exact name, then ": "), or an empty string.
  static QString HeaderValue(const std::vector<QString>* headers, const QString& name);
  // The bytes held according to a "Range" value "bytes=0-<last>": last + 1. Returns -1 when the
  // value is not of that form; an absent value (empty) means nothing is held, 0.
  static std::int64_t HeldFromRange(const QString& range);
  // The first byte of a chunk from its request's "Content-Range: bytes FIRST-LAST/TOTAL" line, or
  // -1 when there is no such line (a status query has "bytes */TOTAL").
  static std::int64_t ChunkStart(const std::vector<QString>* headers);

 private:
  void OnPostDone(const kestrel::quire::NetworkResponseInfo& info);
  void OnPutDone(const kestrel::quire::NetworkResponseInfo& info);
  // A chunk that starts at `first` has `sent` of its bytes on their way.
  void OnSent(std::int64_t first, std::int64_t sent);
  double Seconds() const;

  kestrel::quire::IConnection* inner_;
  kestrel::quire::ITransferConnection* transfer_inner_;  // inner_ when it is one, else null
  // Ids of the requests that have not called back yet.
  std::multiset<unsigned int> in_flight_;
  ProgressBar* bar_;
  std::int64_t total_ = 0;
  std::int64_t held_ = 0;
  int put_answers_ = 0;
  int last_status_ = -1;
  QString session_url_;
  SessionListener session_listener_;
  ProgressListener progress_listener_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace quire_cli
