// Resumable uploads of files of any size through the library's ResumableUploader: a new one, and
// one that continues an interrupted session from where the service says it stands. The file is
// read chunk by chunk as the upload goes. With retries (the command's --retries), the upload
// recovers by itself within the run: a chunk or an opening that failed for a passing reason is
// sent again, and after a lost connection the session is asked where it stands. The state file
// keeps the session address from the moment the service gave it, the progress bar shows bytes on
// their way with rate, time left and retries, and Ctrl-C stops the transfer on the wire and keeps
// the state for upload --resume.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "tools/quire/doc_record.h"
#include "tools/quire/failure_classifier.h"
#include "tools/quire/upload_state.h"

namespace kestrel {
namespace quire {
class ResumableUploader;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

class ProgressBar;
class RetryTally;

class Uploader {
 public:
  // `token` goes on every request of the upload; `state_path` is where the state of an unfinished
  // upload is kept; `progress` (borrowed, may be null) receives the progress bar. With `retries`
  // (borrowed, may be null) the upload follows its policy and every retry is counted there;
  // without, the first failure ends it.
  Uploader(const QString& token, const FailureClassifier& classifier, const QString& state_path,
           std::ostream* progress, RetryTally* retries = nullptr);

  // The identity of a file to upload: its absolute path, size and modification time. Throws
  // CliFailure (local failure) when it cannot be read, or is empty (a resumable upload needs a
  // byte; the message points to quire put).
  static UploadState Identify(const QString& path);

  // Uploads the file of `file` (from Identify) to `start_url`: the feed's resumable-create address
  // (`creates`, the document is named `title`) or a document's resumable-edit address. Returns the
  // document as the service answered. Throws CliFailure; when the service had opened a session the
  // state file stays and the message says to continue with upload --resume.
  DocRecord Upload(const QUrl& start_url, bool creates, const UploadState& file,
                   const QString& title, const QString& content_type, std::uint32_t chunk_size);

  // Continues the upload whose state is at the state path. Throws CliFailure (usage) when there is
  // none, (local failure) when the file changed since, (not found) when the session is gone.
  DocRecord Resume();

  // Both throw CliFailure (interrupted) when Ctrl-C stopped the upload; the state is kept.

  // About the last run: the bytes that the service held when it started and at its end, the
  // chunks that the service confirmed, and its duration in seconds.
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

  // Runs one upload (started by `start`, which is handed the completion) to its end, with the
  // progress bar, the state file and Ctrl-C wired to `uploader`; `resumed` when it continues a
  // session (the bar then starts from what the service holds).
  DocRecord Run(kestrel::quire::ResumableUploader* uploader, const UploadState& state, bool resumed,
                const std::string& what,
                const std::function<void(std::function<void(int, const QByteArray&)>)>& start);
  // Turns the end of an upload into the document or a failure.
  DocRecord Finish(const Outcome& outcome, const kestrel::quire::ResumableUploader& uploader,
                   const std::string& what);
  static void ParseEntry(const QByteArray& body, Outcome* outcome);

  QString token_;
  const FailureClassifier& classifier_;
  QString state_path_;
  std::ostream* progress_;
  RetryTally* retries_;
  std::string state_error_;
  std::int64_t start_bytes_ = 0;
  std::int64_t end_bytes_ = 0;
  int put_answers_ = 0;
  double seconds_ = 0;
};

}  // namespace quire_cli
