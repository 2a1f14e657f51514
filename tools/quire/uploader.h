// Resumable uploads: a new one (ConnectionUtils::ResumableUpload) and one that continues an
// interrupted session (a status query, then ConnectionUtils::ResumableUploadPut from where the
// service says). Each runs over a connection of its own (under the command's retry policy when
// there is one), wrapped in a ProgressConnection that keeps the state file and the progress bar up
// to date. With retries, an upload also recovers by itself within the run: an opening that failed
// for a passing reason is made again, and a session whose transfer failed is asked where it stands
// and continued from there. Ctrl-C stops the transfer on the wire and keeps the state for
// upload --resume.
#pragma once

#include <QString>
#include <QUrl>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "tools/quire/doc_record.h"
#include "tools/quire/failure_classifier.h"

namespace quire_cli {

class MappedFile;
class ProgressBar;
class ProgressConnection;
class RetryTally;
class UploadState;

class Uploader {
 public:
  // `token` goes on every request of the upload; `state_path` is where the state of an unfinished
  // upload is kept; `progress` (borrowed, may be null) receives the progress bar. With `retries`
  // (borrowed, may be null) requests follow its policy, the upload recovers by itself and every
  // retry is counted there.
  Uploader(const QString& token, const FailureClassifier& classifier, const QString& state_path,
           std::ostream* progress, RetryTally* retries = nullptr);

  // Uploads `file` to `start_url`: the feed's resumable-create address (`creates`, the document is
  // named `title`) or a document's resumable-edit address. Returns the document as the service
  // answered. Throws CliFailure; when the service had opened a session the state file stays and the
  // message says to continue with upload --resume.
  DocRecord Upload(const QUrl& start_url, bool creates, MappedFile* file, const QString& title,
                   const QString& content_type, std::uint32_t chunk_size);

  // Continues the upload whose state is at the state path. Throws CliFailure (usage) when there is
  // none, (local failure) when the file changed since, (not found) when the session is gone.
  DocRecord Resume();

  // Both throw CliFailure (interrupted) when Ctrl-C stopped the upload; the state is kept.

  // About the last run: the bytes that the service held when it started and at its end, the PUT
  // answers that came back, and its duration in seconds.
  std::int64_t start_bytes() const { return start_bytes_; }
  std::int64_t end_bytes() const { return end_bytes_; }
  int put_answers() const { return put_answers_; }
  double seconds() const { return seconds_; }

  // The Atom entry sent as the metadata of an upload that creates a document named `title`.
  static QString Metadata(const QString& title);

 private:
  struct Outcome {
    bool done = false;
    int status = 0;
    bool parsed = false;
    DocRecord doc;
  };

  // A connection for one run of the upload, its fixed lines set.
  ProgressConnection* NewConnection(ProgressBar* bar);
  // Wires the listeners of `connection` for `file` and the state to keep.
  void Watch(ProgressConnection* connection, MappedFile* file, const UploadState& state);
  // Runs the main loop until `outcome` is done; a Ctrl-C meanwhile stops the requests of
  // `connection` (the outcome then says so).
  void WaitFor(const Outcome& outcome, ProgressConnection* connection);
  // Whether a run over `connection` that failed with `status` may be followed by another: retries
  // are on, some are left, and the status is one that passes (no answer; 408, 429, 5xx), not one
  // made of an answer that could not be used.
  bool MayRecover(int status, const ProgressConnection& connection, int recoveries) const;
  // Waits (on the main loop, Ctrl-C stopping the wait) before recovery number `recovery`.
  bool PauseBeforeRecovery(int recovery);
  // Asks the session where it stands and sends the rest of `file` from there, over `connection`.
  // Fills `outcome`.
  // `on_position` (may be empty) hears the bytes held once the service has said.
  void Continue(const UploadState& state, MappedFile* file, ProgressConnection* connection,
                const std::function<void(std::int64_t held)>& on_position, Outcome* outcome);
  // Turns the end of an upload into the document or a failure.
  DocRecord Finish(const Outcome& outcome, const ProgressConnection& connection,
                   const std::string& what);
  static void ParseEntry(const QByteArray& body, Outcome* outcome);

  QString token_;
  const FailureClassifier& classifier_;
  QString state_path_;
  std::ostream* progress_;
  RetryTally* retries_;
  std::string state_error_;
  // The position of the last status query's answer could not be read.
  bool unreadable_range_ = false;
  std::int64_t start_bytes_ = 0;
  std::int64_t end_bytes_ = 0;
  int put_answers_ = 0;
  double seconds_ = 0;
};

}  // namespace quire_cli
