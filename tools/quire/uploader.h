// Resumable uploads: a new one (ConnectionUtils::ResumableUpload) and one that continues an
// interrupted session (a status query, then ConnectionUtils::ResumableUploadPut from where the
// service says). Each runs over a Connection of its own, wrapped in a ProgressConnection that
// keeps the state file and the progress bar up to date.
#pragma once

#include <QString>
#include <QUrl>
#include <cstdint>
#include <ostream>
#include <string>

#include "tools/quire/doc_record.h"
#include "tools/quire/failure_classifier.h"

namespace quire_cli {

class MappedFile;
class ProgressConnection;
class UploadState;

class Uploader {
 public:
  // `token` goes on every request of the upload; `state_path` is where the state of an unfinished
  // upload is kept; `progress` (borrowed, may be null) receives the progress bar.
  Uploader(const QString& token, const FailureClassifier& classifier, const QString& state_path,
           std::ostream* progress);

  // Uploads `file` to `start_url`: the feed's resumable-create address (`creates`, the document is
  // named `title`) or a document's resumable-edit address. Returns the document as the service
  // answered. Throws CliFailure; when the service had opened a session the state file stays and the
  // message says to continue with upload --resume.
  DocRecord Upload(const QUrl& start_url, bool creates, MappedFile* file, const QString& title,
                   const QString& content_type, std::uint32_t chunk_size);

  // Continues the upload whose state is at the state path. Throws CliFailure (usage) when there is
  // none, (local failure) when the file changed since, (not found) when the session is gone.
  DocRecord Resume();

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

  // Wires the listeners of `connection` for `file` and the state to keep.
  void Watch(ProgressConnection* connection, MappedFile* file, const UploadState& state);
  // Turns the end of an upload into the document or a failure.
  DocRecord Finish(const Outcome& outcome, const ProgressConnection& connection,
                   const std::string& what);
  static void ParseEntry(const QByteArray& body, Outcome* outcome);

  QString token_;
  const FailureClassifier& classifier_;
  QString state_path_;
  std::ostream* progress_;
  std::string state_error_;
  std::int64_t start_bytes_ = 0;
  std::int64_t end_bytes_ = 0;
  int put_answers_ = 0;
  double seconds_ = 0;
};

}  // namespace quire_cli
