#include "tools/quire/downloader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "kestrel/base/main_loop.h"
#include "quire/services/content_download.h"
#include "tools/quire/cli_failure.h"
#include "tools/quire/client.h"
#include "tools/quire/interrupt_handler.h"
#include "tools/quire/progress_bar.h"

namespace quire_cli {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the download's classes and outcomes

std::string S(const QString& text) { return text.toStdString(); }

std::string SystemError(int number) { return std::strerror(number); }

// An open file descriptor, closed when it goes.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int Close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

QString ReadEtag(int fd) {
  char value[512];
  const ssize_t n = ::fgetxattr(fd, Downloader::kEtagAttribute, value, sizeof value);
  if (n <= 0) return QString();
  return QString::fromLatin1(value, static_cast<int>(n));
}

// Runs a download to its end on the main loop, drawing the progress bar.
DownloadResult RunDownload(const kestrel::quire::Service* service, const QUrl& url,
                           DownloadTarget target, DownloadOptions options, std::ostream* progress) {
  std::unique_ptr<ProgressBar> bar;
  const auto start = std::chrono::steady_clock::now();
  const std::uint64_t from = options.resume_from;
  auto user_progress = options.progress;
  options.progress = [&](std::uint64_t written, std::int64_t total) {
    if (user_progress) user_progress(written, total);
    if (progress == nullptr || total < 0) return;
    if (!bar) bar.reset(new ProgressBar(progress, total, static_cast<std::int64_t>(from)));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    bar->Update(static_cast<std::int64_t>(written), seconds);
  };
  ContentDownload download(service);
  bool done = false;
  DownloadResult result;
  download.Start(url, std::move(target), std::move(options), [&](const DownloadResult& r) {
    result = r;
    done = true;
  });
  Client::Wait([&] { return done; });
  if (bar) bar->Finish();
  return result;
}

}  // namespace

Downloader::Downloader(const kestrel::quire::Service* service, const FailureClassifier& classifier,
                       std::ostream* progress, int attempts)
    : service_(service),
      classifier_(classifier),
      progress_(progress),
      max_attempts_(attempts < 1 ? 1 : attempts) {}

void Downloader::CheckOutputPath(const QString& path) {
  const QFileInfo info(path);
  if (info.isDir()) {
    throw CliFailure(ExitCode::kUsage, "-o " + S(path) +
                                           " names a folder; give the path of a file to write, "
                                           "e.g. -o " +
                                           S(QDir(path).filePath(QStringLiteral("document"))));
  }
  const QFileInfo folder(info.absolutePath());
  if (!folder.isDir()) {
    throw CliFailure(ExitCode::kLocal, "the folder " + S(info.absolutePath()) +
                                           " of -o does not exist; create it or give another "
                                           "path with -o");
  }
}

void Downloader::ToFile(const DocRecord& doc, const QString& path, bool resume,
                        const std::string& command) {
  CheckOutputPath(path);
  const QString part_path = PartPath(path);
  const QByteArray part_name = QFile::encodeName(part_path);
  const std::string part_text = S(part_path);
  struct stat before;
  const bool part_existed = ::stat(part_name.constData(), &before) == 0;
  int flags = O_RDWR | O_CREAT | O_CLOEXEC;
  if (!resume) flags |= O_TRUNC;
  Fd fd(::open(part_name.constData(), flags, 0644));
  if (fd.get() < 0) {
    const int error = errno;
    throw CliFailure(ExitCode::kLocal, "cannot write " + part_text + " (" + SystemError(error) +
                                           "); give a path in a writable folder with -o");
  }
  DownloadOptions options;
  options.retry_policy.set_max_attempts(max_attempts_);
  if (resume) {
    struct stat info;
    if (::fstat(fd.get(), &info) == 0 && info.st_size > 0) {
      options.resume_from = static_cast<std::uint64_t>(info.st_size);
      options.etag = ReadEtag(fd.get());
    }
  }
  // The part's entity tag is recorded as soon as it is known, so that a run killed at any moment
  // leaves a part that --continue can extend.
  const int part_fd = fd.get();
  options.started = [part_fd](const QString& etag, std::int64_t, std::uint64_t) {
    const QByteArray value = etag.toLatin1();
    if (value.isEmpty()) {
      ::fremovexattr(part_fd, kEtagAttribute);
    } else {
      ::fsetxattr(part_fd, kEtagAttribute, value.constData(),
                  static_cast<std::size_t>(value.size()), 0);
    }
  };
  const std::string continue_hint = "the " + std::string(resume ? "" : "partial ") +
                                    "content is kept in " + part_text + "; continue it with " +
                                    command + " --continue";
  InterruptHandler::SetMessage("interrupted; " + continue_hint);

  DownloadResult result = RunDownload(
      service_, doc.content_src, DownloadTarget::ForFileDescriptor(fd.get()), options, progress_);
  InterruptHandler::SetMessage(std::string());
  bytes_ = result.bytes_written;
  reused_ = result.bytes_reused;
  attempts_ = result.attempts;
  restarted_ = result.restarted;

  if (result.outcome != DownloadOutcome::kComplete) {
    // A part that holds bytes of a known version is worth continuing after a failure that may
    // pass (the network, a busy service, a full disk); any other part is removed.
    const bool resumable =
        result.bytes_written > 0 && !result.etag.isEmpty() &&
        (result.outcome == DownloadOutcome::kNetworkFailure ||
         result.outcome == DownloadOutcome::kWriteFailed ||
         (result.outcome == DownloadOutcome::kHttpError && result.status >= 500));
    if (!resumable && !(resume && part_existed && result.bytes_written > 0)) {
      fd.Close();
      ::unlink(part_name.constData());
    }
    const std::string kept = resumable ? "; " + continue_hint : std::string();
    if (result.outcome == DownloadOutcome::kWriteFailed) {
      const std::string what = result.error_number == ENOSPC ? "the disk is full" : S(result.error);
      throw CliFailure(ExitCode::kLocal, "cannot write " + part_text + " (" + what + ")" +
                                             (resumable ? "; free some space, then " + command +
                                                              " --continue continues it"
                                                        : std::string("; check the free space "
                                                                      "and the permissions")));
    }
    if (result.outcome == DownloadOutcome::kProtocolError ||
        result.outcome == DownloadOutcome::kCannotRestart) {
      throw CliFailure(ExitCode::kUnreadableAnswer, "the service's answer for \"" + S(doc.title) +
                                                        "\" cannot be used: " + S(result.error) +
                                                        "; nothing was saved to " + S(path));
    }
    const FailureClassifier::Diagnosis diagnosis = classifier_.Diagnose(
        result.status == 0 ? 2 : result.status,
        "downloading \"" + S(doc.title) + "\" after " + std::to_string(result.attempts) +
            (result.attempts == 1 ? " attempt" : " attempts"));
    throw CliFailure(diagnosis.code,
                     diagnosis.what + kept + (resumable ? "" : "; " + diagnosis.todo));
  }

  // Durable before it takes the name: a crash after the rename never shows a torn FILE.
  if (::fsync(fd.get()) != 0 || fd.Close() != 0) {
    const int error = errno;
    throw CliFailure(ExitCode::kLocal, "cannot write " + part_text + " (" + SystemError(error) +
                                           "); check the free space, then " + command +
                                           " --continue");
  }
  const QByteArray final_name = QFile::encodeName(path);
  if (::rename(part_name.constData(), final_name.constData()) != 0) {
    const int error = errno;
    throw CliFailure(ExitCode::kLocal, "cannot rename " + part_text + " to " + S(path) + " (" +
                                           SystemError(error) + "); the content is complete in " +
                                           part_text);
  }
  ::removexattr(final_name.constData(), kEtagAttribute);
  Fd folder(::open(QFile::encodeName(QFileInfo(path).absolutePath()).constData(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() >= 0) ::fsync(folder.get());
}

void Downloader::ToStream(const DocRecord& doc,
                          const std::function<bool(const char*, std::size_t)>& write) {
  DownloadOptions options;
  options.retry_policy.set_max_attempts(max_attempts_);
  // A stream is written in order only: a retry resumes where it stands, and a changed content
  // cannot start over.
  std::uint64_t position = 0;
  DownloadTarget target = DownloadTarget::ForFunctions(
      [&write, &position](std::uint64_t offset, const char* data, std::size_t size) {
        if (offset != position) return false;
        position += size;
        return write(data, size);
      },
      [&position](std::uint64_t size) { return size == position; });
  DownloadResult result = RunDownload(service_, doc.content_src, target, options, progress_);
  bytes_ = result.bytes_written;
  attempts_ = result.attempts;
  if (result.outcome == DownloadOutcome::kComplete) return;
  if (result.outcome == DownloadOutcome::kWriteFailed) {
    throw CliFailure(ExitCode::kLocal,
                     "cannot write the content of \"" + S(doc.title) +
                         "\" to the standard output; check where it goes (a full disk, a closed "
                         "pipe)");
  }
  if (result.outcome == DownloadOutcome::kProtocolError ||
      result.outcome == DownloadOutcome::kCannotRestart) {
    throw CliFailure(ExitCode::kUnreadableAnswer, "the service's answer for \"" + S(doc.title) +
                                                      "\" cannot be used: " + S(result.error) +
                                                      "; the output is incomplete");
  }
  throw classifier_.Classify(result.status == 0 ? 2 : result.status,
                             "downloading \"" + S(doc.title) + "\"");
}

}  // namespace quire_cli
