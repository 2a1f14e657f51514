#include "tools/quire/uploader.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/connection/connection.h"
#include "quire/model/docs_entry.h"
#include "quire/services/endpoints.h"
#include "quire/upload/resumable_uploader.h"
#include "tools/quire/client.h"
#include "tools/quire/interrupt_handler.h"
#include "tools/quire/progress_bar.h"
#include "tools/quire/retry_tally.h"
#include "tools/quire/upload_state.h"

namespace quire_cli {

using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResumableUploader;
using kestrel::quire::RetryPolicy;

namespace {

std::string Quoted(const QString& text) { return "\"" + text.toStdString() + "\""; }

std::string ResumeHint(const QString& state_path) {
  return state_path == UploadState::DefaultPath()
             ? std::string("quire upload --resume")
             : "quire upload --resume --state-file " + state_path.toStdString();
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// How often the main loop looks for a Ctrl-C while an upload waits for the network.
constexpr double kInterruptPollSeconds = 0.05;

// While it lives, a job runs on the main loop every kInterruptPollSeconds, so that a loop waiting
// for the network still checks its condition (a Ctrl-C).
class Ticker {
 public:
  Ticker() : alive_(std::make_shared<bool>(true)) { Schedule(alive_); }
  ~Ticker() { *alive_ = false; }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  static void Schedule(const std::shared_ptr<bool>& alive) {
    kestrel::MainLoop::Default()->PostDelayed(kInterruptPollSeconds, [alive] {
      if (*alive) Schedule(alive);
    });
  }
  std::shared_ptr<bool> alive_;
};

std::string InterruptedMessage(const QString& state_path) {
  return "interrupted; the upload continues where it stopped with " + ResumeHint(state_path);
}

}  // namespace

Uploader::Uploader(const QString& token, const FailureClassifier& classifier,
                   const QString& state_path, std::ostream* progress, RetryTally* retries)
    : token_(token),
      classifier_(classifier),
      state_path_(state_path),
      progress_(progress),
      retries_(retries) {}

QString Uploader::Metadata(const QString& title) {
  return QStringLiteral(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
             "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>%1</title></entry>")
      .arg(title.toHtmlEscaped());
}

void Uploader::ParseEntry(const QByteArray& body, Outcome* outcome) {
  kestrel::XmlReader reader(body);
  kestrel::quire::DocsEntry entry;
  outcome->parsed = !reader.GetErrorsOccurred() && reader.GetRootNode() != nullptr &&
                    entry.ParseFrom(reader.GetRootNode());
  if (outcome->parsed) outcome->doc = DocRecord::FromEntry(entry);
}

UploadState Uploader::Identify(const QString& path) {
  const QFileInfo info(path);
  if (info.isDir()) {
    throw CliFailure(ExitCode::kLocal,
                     path.toStdString() + " is a folder, not a file; give the path of a file");
  }
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) {
    throw CliFailure(ExitCode::kLocal, "cannot open " + path.toStdString() + " (" +
                                           file.errorString().toStdString() +
                                           "); check the path and its permissions");
  }
  UploadState state;
  state.file_path = info.absoluteFilePath();
  state.file_size = info.size();
  state.file_modified_ms = info.lastModified().toMSecsSinceEpoch();
  return state;
}

DocRecord Uploader::Run(
    ResumableUploader* uploader, const UploadState& state, bool resumed, const std::string& what,
    const std::function<void(std::function<void(int, const QByteArray&)>)>& start) {
  const auto started = std::chrono::steady_clock::now();
  std::unique_ptr<ProgressBar> bar;
  if (progress_ != nullptr && !resumed) bar.reset(new ProgressBar(progress_, state.file_size, 0));
  if (retries_ != nullptr) retries_->set_bar(bar.get());
  start_bytes_ = 0;
  put_answers_ = 0;
  bool positioned = !resumed;
  std::int64_t confirmed = 0;
  int retries_seen = 0;
  uploader->set_progress_callback([&](const ResumableUploader::Progress& progress) {
    if (!positioned) {
      // A resumed upload: the first report says what the service held; the bar (and its rate)
      // starts there.
      positioned = true;
      start_bytes_ = progress.bytes_confirmed;
      confirmed = progress.bytes_confirmed;
      if (progress_ != nullptr) {
        bar.reset(new ProgressBar(progress_, state.file_size, start_bytes_));
        if (retries_ != nullptr) retries_->set_bar(bar.get());
      }
    }
    if (progress.bytes_confirmed > confirmed) {
      confirmed = progress.bytes_confirmed;
      ++put_answers_;
    }
    while (retries_ != nullptr && retries_seen < progress.retries) {
      ++retries_seen;
      retries_->Count();
    }
    if (bar) bar->Update(progress.bytes_sent, SecondsSince(started));
  });
  uploader->set_session_callback([this, state](const QString& session_url) {
    // Runs inside the library's callback: failures are kept, not thrown.
    UploadState opened = state;
    opened.session_url = session_url;
    try {
      opened.Save(state_path_);
      InterruptHandler::SetMessage(InterruptedMessage(state_path_));
    } catch (const CliFailure& failure) {
      state_error_ = failure.message();
    }
  });

  Outcome outcome;
  start([&outcome](int status, const QByteArray& body) {
    outcome.done = true;
    outcome.status = status;
    if (status == 0) ParseEntry(body, &outcome);
  });
  {
    Ticker ticker;
    bool cancelled = false;
    InterruptHandler::SetCancellable(true);
    Client::Wait([&] {
      if (!cancelled && InterruptHandler::CancelRequested()) {
        cancelled = true;
        uploader->Cancel();
      }
      return outcome.done;
    });
    InterruptHandler::SetCancellable(false);
  }
  while (retries_ != nullptr && retries_seen < uploader->progress().retries) {
    ++retries_seen;
    retries_->Count();
  }
  // The callbacks refer to this function's variables; the upload has ended, but leave nothing
  // behind that could reach them.
  uploader->set_progress_callback(nullptr);
  uploader->set_session_callback(nullptr);
  if (bar) bar->Finish();
  if (retries_ != nullptr) retries_->set_bar(nullptr);
  seconds_ = SecondsSince(started);
  return Finish(outcome, *uploader, what);
}

DocRecord Uploader::Finish(const Outcome& outcome, const ResumableUploader& uploader,
                           const std::string& what) {
  end_bytes_ = uploader.progress().bytes_confirmed;
  const std::int64_t total = uploader.progress().total_bytes;
  InterruptHandler::SetMessage(std::string());
  const bool session_open = !uploader.session_url().isEmpty();
  const std::string held = " (the service holds " + std::to_string(end_bytes_) + " of " +
                           std::to_string(total) + " bytes)";
  if (outcome.status == kestrel::quire::kStatusCancelled) {
    if (!session_open) {
      throw CliFailure(
          ExitCode::kInterrupted,
          "interrupted before the service opened the upload of " + what + "; start it again");
    }
    throw CliFailure(ExitCode::kInterrupted, "interrupted" + held +
                                                 "; the upload continues where it stopped with " +
                                                 ResumeHint(state_path_));
  }
  if (outcome.status == 0) {
    UploadState::Remove(state_path_);
    if (!outcome.parsed) {
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the upload of " + what +
                           " finished, but the service's answer could not be read; run quire ls to "
                           "see the document");
    }
    return outcome.doc;
  }
  switch (uploader.error()) {
    case ResumableUploader::kSourceChanged:
      UploadState::Remove(state_path_);
      throw CliFailure(ExitCode::kLocal,
                       "the file " + what +
                           " changed during its upload (size or modification time), so the upload "
                           "stopped before a changed byte was sent; start it again once the file "
                           "stays as it is");
    case ResumableUploader::kSourceUnreadable:
      throw CliFailure(ExitCode::kLocal, "the file " + what +
                                             " could not be read; check it and its permissions, "
                                             "then start the upload again");
    case ResumableUploader::kSessionGone:
      UploadState::Remove(state_path_);
      throw CliFailure(ExitCode::kNotFound,
                       "the upload session of " + what +
                           " is gone (sessions end when their upload completes or after an hour "
                           "without requests); start the upload again");
    case ResumableUploader::kNoSessionAddress:
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the service opened no upload session for " + what +
                           " (its answer named none); check that --server names the document "
                           "service");
    case ResumableUploader::kBadRange:
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the service's answer about the upload session of " + what +
                           " could not be read (HTTP 308 with a Range beyond the data)" + held +
                           "; try " + ResumeHint(state_path_) + " later");
    default:
      break;
  }
  if (outcome.status == 308) {
    // Every try ended in a 308 that did not confirm the bytes sent (no Range, or less than sent).
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the service's answers about the upload session of " + what +
                         " could not be used (HTTP 308 without the bytes that were sent)" + held +
                         "; try " + ResumeHint(state_path_) + " later");
  }
  FailureClassifier::Diagnosis diagnosis =
      classifier_.Diagnose(outcome.status, "uploading " + what);
  if (outcome.status == 404 || outcome.status == 410) {
    UploadState::Remove(state_path_);
    if (session_open) {
      throw CliFailure(ExitCode::kNotFound,
                       "the upload session of " + what +
                           " is gone (sessions end when their upload completes or after an hour "
                           "without requests); start the upload again");
    }
  }
  std::string message = diagnosis.what;
  if (session_open && state_error_.empty()) {
    message += held + "; " + diagnosis.todo + ", then continue with " + ResumeHint(state_path_);
  } else {
    message += "; " + diagnosis.todo + ", then start the upload again";
    if (!state_error_.empty()) message += " (" + state_error_ + ")";
  }
  throw CliFailure(diagnosis.code, message);
}

DocRecord Uploader::Upload(const QUrl& start_url, bool creates, const UploadState& file,
                           const QString& title, const QString& content_type,
                           std::uint32_t chunk_size) {
  const std::string what = Quoted(QFileInfo(file.file_path).fileName());
  if (start_url.isEmpty()) {
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the service gave no address to start an upload of " + what +
                         " at; check that --server names the document service");
  }
  if (file.file_size == 0) {
    throw CliFailure(ExitCode::kLocal, "the file " + what +
                                           " is empty and a resumable upload needs at least one "
                                           "byte; use quire put for an empty document");
  }
  UploadState state = file;
  state.content_type = content_type;
  state.title = title;
  state.chunk_size = chunk_size;
  InterruptHandler::SetMessage("interrupted before the service opened the upload; start it again");

  std::unique_ptr<kestrel::quire::Connection> connection(new kestrel::quire::Connection());
  connection->Init({QStringLiteral("Quire-Version: %1").arg(kestrel::quire::kProtocolVersion),
                    QStringLiteral("Authorization: Bearer ") + token_});
  std::unique_ptr<ResumableUploader> uploader(
      new ResumableUploader(connection.get(), chunk_size,
                            retries_ != nullptr ? retries_->policy() : RetryPolicy::NoRetries()));
  const QString url = QString::fromLatin1(start_url.toEncoded());
  const QString metadata = creates ? Metadata(title) : QString();
  ResumableUploader* raw = uploader.get();
  return Run(raw, state, false, what, [&](std::function<void(int, const QByteArray&)> done) {
    raw->Start(url, metadata, content_type, state.file_path,
               [done](NetworkResponseInfo info, QByteArray body) { done(info.status, body); });
  });
}

DocRecord Uploader::Resume() {
  UploadState state;
  if (!state.Load(state_path_)) {
    throw CliFailure(ExitCode::kUsage, "there is no interrupted upload to continue (no state at " +
                                           state_path_.toStdString() +
                                           "); start one with quire upload FILE");
  }
  const std::string what = Quoted(QFileInfo(state.file_path).fileName());
  const QFileInfo info(state.file_path);
  if (!info.exists() || info.size() != state.file_size ||
      info.lastModified().toMSecsSinceEpoch() != state.file_modified_ms) {
    UploadState::Remove(state_path_);
    throw CliFailure(ExitCode::kLocal,
                     state.file_path.toStdString() +
                         (info.exists() ? " changed since its upload started (size or "
                                          "modification time differ)"
                                        : " is gone") +
                         ", so the bytes already sent may not match; start a new upload with quire "
                         "upload FILE");
  }
  InterruptHandler::SetMessage(InterruptedMessage(state_path_));
  std::unique_ptr<kestrel::quire::Connection> connection(new kestrel::quire::Connection());
  connection->Init({QStringLiteral("Quire-Version: %1").arg(kestrel::quire::kProtocolVersion),
                    QStringLiteral("Authorization: Bearer ") + token_});
  std::unique_ptr<ResumableUploader> uploader(
      new ResumableUploader(connection.get(), state.chunk_size,
                            retries_ != nullptr ? retries_->policy() : RetryPolicy::NoRetries()));
  ResumableUploader* raw = uploader.get();
  return Run(raw, state, true, what, [&](std::function<void(int, const QByteArray&)> done) {
    raw->Resume(state.session_url, QString(), QString(), state.content_type, state.file_path,
                [done](NetworkResponseInfo info, QByteArray body) { done(info.status, body); });
  });
}

}  // namespace quire_cli
