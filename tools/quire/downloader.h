// Downloads of a document's content by `quire get`: streamed to standard output, or into FILE.part
// beside FILE, synced and renamed over FILE only at the very end, so that FILE is never seen torn.
// A part left by an interrupted run keeps the content's entity tag in an extended attribute
// (user.quire.etag), so that --continue asks only for the missing bytes, under If-Range.
#pragma once

#include <QString>
#include <QUrl>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "tools/quire/doc_record.h"
#include "tools/quire/failure_classifier.h"

namespace kestrel {
namespace quire {
class Service;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

class Downloader {
 public:
  // The name of the extended attribute of a part file that holds the content's entity tag.
  static constexpr char kEtagAttribute[] = "user.quire.etag";

  // `service` authorises the requests (borrowed); `progress` (borrowed, may be null) receives the
  // progress bar; `attempts` is how many attempts in a row without a new byte are made before a
  // transient failure is final (at least 1).
  Downloader(const kestrel::quire::Service* service, const FailureClassifier& classifier,
             std::ostream* progress, int attempts);

  // Checks `path` before anything is sent: not a folder, a folder that exists. Throws CliFailure.
  static void CheckOutputPath(const QString& path);
  // The part file of `path`.
  static QString PartPath(const QString& path) { return path + QStringLiteral(".part"); }

  // Downloads `doc` into `path` through its part file, continuing a part left before when
  // `resume`. Throws CliFailure; a part worth continuing is kept and the message says how.
  void ToFile(const DocRecord& doc, const QString& path, bool resume, const std::string& command);
  // Streams `doc` to `write` (which returns false when the output failed). Throws CliFailure.
  void ToStream(const DocRecord& doc, const std::function<bool(const char*, std::size_t)>& write);

  // About the last download: bytes in the destination at the end, bytes kept from an earlier
  // part, the requests sent, and whether it started over because the content had changed.
  std::uint64_t bytes() const { return bytes_; }
  std::uint64_t reused() const { return reused_; }
  int attempts() const { return attempts_; }
  bool restarted() const { return restarted_; }

 private:
  const kestrel::quire::Service* service_;
  const FailureClassifier& classifier_;
  std::ostream* progress_;
  int max_attempts_;
  std::uint64_t bytes_ = 0;
  std::uint64_t reused_ = 0;
  int attempts_ = 0;
  bool restarted_ = false;
};

}  // namespace quire_cli
