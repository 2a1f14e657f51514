#include "tools/quire/uploader.h"

#include <QDateTime>
#include <QFileInfo>
#include <chrono>
#include <memory>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/connection/connection.h"
#include "quire/connection/retrying_connection.h"
#include "quire/model/docs_entry.h"
#include "quire/services/endpoints.h"
#include "quire/upload/connection_utils.h"
#include "tools/quire/client.h"
#include "tools/quire/interrupt_handler.h"
#include "tools/quire/mapped_file.h"
#include "tools/quire/progress_bar.h"
#include "tools/quire/progress_connection.h"
#include "tools/quire/retry_tally.h"
#include "tools/quire/upload_state.h"

namespace quire_cli {

using kestrel::quire::ConnectionParams;
using kestrel::quire::ConnectionUtils;
using kestrel::quire::NetworkResponseInfo;

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
// for the network still checks its condition (a Ctrl-C, the end of a pause).
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

ProgressConnection* Uploader::NewConnection(ProgressBar* bar) {
  kestrel::quire::IConnection* inner =
      retries_ != nullptr ? static_cast<kestrel::quire::IConnection*>(retries_->Wrap(nullptr))
                          : new kestrel::quire::Connection();
  auto* connection = new ProgressConnection(inner, bar);
  connection->Init({QStringLiteral("Quire-Version: %1").arg(kestrel::quire::kProtocolVersion),
                    QStringLiteral("Authorization: Bearer ") + token_});
  return connection;
}

void Uploader::WaitFor(const Outcome& outcome, ProgressConnection* connection) {
  Ticker ticker;
  bool cancelled = false;
  InterruptHandler::SetCancellable(true);
  Client::Wait([&] {
    if (!cancelled && InterruptHandler::CancelRequested()) {
      cancelled = true;
      connection->CancelAll();
    }
    return outcome.done;
  });
  InterruptHandler::SetCancellable(false);
}

bool Uploader::MayRecover(int status, const ProgressConnection& connection, int recoveries) const {
  if (retries_ == nullptr || recoveries >= retries_->policy().max_attempts() - 1) return false;
  if (status == kestrel::quire::kStatusFailure) {
    // The upload code's own failure after an answer it could not use (a 308 without a usable
    // Range) would come again.
    return connection.last_status() == kestrel::quire::kStatusFailure;
  }
  return status == 408 || status == 429 || status == 500 || status == 502 || status == 503 ||
         status == 504;
}

bool Uploader::PauseBeforeRecovery(int recovery) {
  retries_->Count();
  const double delay = retries_->policy().BackoffSeconds(recovery);
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(delay);
  bool interrupted = false;
  Ticker ticker;
  InterruptHandler::SetCancellable(true);
  kestrel::MainLoop::Default()->RunUntil(
      [&] {
        interrupted = InterruptHandler::CancelRequested();
        return interrupted || std::chrono::steady_clock::now() >= until;
      },
      delay + 1);
  InterruptHandler::SetCancellable(false);
  return !interrupted;
}

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

void Uploader::Watch(ProgressConnection* connection, MappedFile* file, const UploadState& state) {
  connection->set_total(file->size());
  connection->set_session_listener([this, state](const QString& session_url) {
    // Runs inside the library's callback: failures are kept, not thrown.
    UploadState opened = state;
    opened.session_url = session_url;
    try {
      opened.Save(state_path_);
      InterruptHandler::SetMessage("interrupted; the upload continues where it stopped with " +
                                   ResumeHint(state_path_));
    } catch (const CliFailure& failure) {
      state_error_ = failure.message();
    }
  });
  connection->set_progress_listener([file](std::int64_t held, std::int64_t) {
    // The next chunk starts again at the last byte held; everything before it is done with.
    file->ReleaseBefore(held - 1);
  });
}

DocRecord Uploader::Finish(const Outcome& outcome, const ProgressConnection& connection,
                           const std::string& what) {
  end_bytes_ = connection.held();
  put_answers_ += connection.put_answers();
  InterruptHandler::SetMessage(std::string());
  if (outcome.status == kestrel::quire::kStatusCancelled) {
    // Ctrl-C: the state stays (when the session was opened) for upload --resume.
    if (connection.session_url().isEmpty()) {
      throw CliFailure(
          ExitCode::kInterrupted,
          "interrupted before the service opened the upload of " + what + "; start it again");
    }
    throw CliFailure(ExitCode::kInterrupted,
                     "interrupted (the service holds " + std::to_string(connection.held()) +
                         " of " + std::to_string(connection.total()) + " bytes); the upload " +
                         "continues where it stopped with " + ResumeHint(state_path_));
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
  if (unreadable_range_) {
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the service's answer about the upload session of " + what +
                         " could not be read (an unusual Range); try " + ResumeHint(state_path_) +
                         " again later");
  }
  FailureClassifier::Diagnosis diagnosis =
      classifier_.Diagnose(outcome.status, "uploading " + what);
  const bool session_open = !connection.session_url().isEmpty();
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
    message += " (the service holds " + std::to_string(connection.held()) + " of " +
               std::to_string(connection.total()) + " bytes); " + diagnosis.todo +
               ", then continue with " + ResumeHint(state_path_);
  } else {
    message += "; " + diagnosis.todo + ", then start the upload again";
    if (!state_error_.empty()) message += " (" + state_error_ + ")";
  }
  throw CliFailure(diagnosis.code, message);
}

void Uploader::Continue(const UploadState& state, MappedFile* file, ProgressConnection* connection,
                        const std::function<void(std::int64_t held)>& on_position,
                        Outcome* outcome) {
  unreadable_range_ = false;
  // Where does the session stand? A PUT without data that names only the total.
  const std::vector<QString> query_headers = {
      QStringLiteral("Content-Range: bytes */%1").arg(file->size())};
  ConnectionParams params{};
  params.method = kestrel::quire::kMethodPut;
  params.url = state.session_url;
  params.body = nullptr;
  params.headers = &query_headers;
  params.collect_response_headers = true;
  params.request_id = 0;

  connection->set_session_url(state.session_url);
  ConnectionUtils utils(state.chunk_size, connection);
  Outcome query;
  bool position_known = false;
  std::uint32_t position = 0;
  bool range_present = false;
  const unsigned int query_id =
      connection->Request(params, [&](NetworkResponseInfo info, QByteArray body) {
        query.done = true;
        query.status = info.status;
        if (info.status == 0) ParseEntry(body, &query);
        if (info.status == 308) {
          range_present = !utils.GetHeaderValue(info.headers, QStringLiteral("Range")).isEmpty();
          position_known = utils.GetResumableStartPos(info.headers, &position);
        }
      });
  WaitFor(query, connection);
  if (query.status != 308) {
    *outcome = query;
    return;
  }
  if (!position_known) {
    if (range_present) {
      unreadable_range_ = true;
      outcome->done = true;
      outcome->status = 308;
      return;
    }
    position = 0;  // the session holds nothing yet
  }
  if (on_position) on_position(connection->held());
  utils.ResumableUploadPut(state.session_url, state.content_type, file->data(), position, query_id,
                           [outcome](NetworkResponseInfo info, QByteArray body) {
                             outcome->done = true;
                             outcome->status = info.status;
                             if (info.status == 0) ParseEntry(body, outcome);
                           });
  WaitFor(*outcome, connection);
}

DocRecord Uploader::Upload(const QUrl& start_url, bool creates, MappedFile* file,
                           const QString& title, const QString& content_type,
                           std::uint32_t chunk_size) {
  const std::string what = Quoted(QFileInfo(file->path()).fileName());
  if (start_url.isEmpty()) {
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the service gave no address to start an upload of " + what +
                         " at; check that --server names the document service");
  }
  if (file->size() == 0) {
    throw CliFailure(ExitCode::kLocal, "the file " + what +
                                           " is empty and a resumable upload needs at least one "
                                           "byte; use quire put for an empty document");
  }
  const auto start = std::chrono::steady_clock::now();
  UploadState state;
  state.file_path = file->path();
  state.file_size = file->size();
  state.file_modified_ms = file->modified_ms();
  state.content_type = content_type;
  state.title = title;
  state.chunk_size = chunk_size;

  std::unique_ptr<ProgressBar> bar;
  if (progress_ != nullptr) bar.reset(new ProgressBar(progress_, file->size(), 0));
  if (retries_ != nullptr) retries_->set_bar(bar.get());
  start_bytes_ = 0;
  put_answers_ = 0;
  InterruptHandler::SetMessage("interrupted before the service opened the upload; start it again");

  Outcome outcome;
  std::unique_ptr<ProgressConnection> connection;
  for (int recovery = 0;; ++recovery) {
    if (connection) put_answers_ += connection->put_answers();
    connection.reset(NewConnection(bar.get()));
    Watch(connection.get(), file, state);
    ConnectionUtils utils(chunk_size, connection.get());
    outcome = Outcome();
    utils.ResumableUpload(QString::fromLatin1(start_url.toEncoded()),
                          creates ? Metadata(title) : QString(), content_type, file->data(),
                          [&outcome](NetworkResponseInfo info, QByteArray body) {
                            outcome.done = true;
                            outcome.status = info.status;
                            if (info.status == 0) ParseEntry(body, &outcome);
                          });
    WaitFor(outcome, connection.get());
    // Opening a session has no effect that anyone sees until data arrives (a session nobody uses
    // expires), so an opening that failed for a passing reason is simply made again.
    if (!connection->session_url().isEmpty() ||
        !MayRecover(outcome.status, *connection, recovery) || !PauseBeforeRecovery(recovery + 1)) {
      break;
    }
  }
  // The session is open: a transfer that failed for a passing reason goes on from where the
  // service stands.
  state.session_url = connection->session_url();
  for (int recovery = 0;
       !state.session_url.isEmpty() && MayRecover(outcome.status, *connection, recovery) &&
       state_error_.empty() && PauseBeforeRecovery(recovery + 1);
       ++recovery) {
    const std::int64_t held = connection->held();
    put_answers_ += connection->put_answers();
    connection.reset(NewConnection(bar.get()));
    Watch(connection.get(), file, state);
    connection->set_held(held);
    outcome = Outcome();
    Continue(state, file, connection.get(), nullptr, &outcome);
  }
  if (bar) bar->Finish();
  if (retries_ != nullptr) retries_->set_bar(nullptr);
  seconds_ = SecondsSince(start);
  return Finish(outcome, *connection, what);
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
  MappedFile file(state.file_path);
  const auto start = std::chrono::steady_clock::now();
  InterruptHandler::SetMessage(InterruptedMessage(state_path_));
  put_answers_ = 0;

  std::unique_ptr<ProgressBar> bar;
  std::unique_ptr<ProgressConnection> connection;
  Outcome outcome;
  bool positioned = false;
  start_bytes_ = 0;
  for (int recovery = 0;; ++recovery) {
    const std::int64_t held = connection ? connection->held() : 0;
    if (connection) put_answers_ += connection->put_answers();
    connection.reset(NewConnection(bar.get()));
    Watch(connection.get(), &file, state);
    if (recovery > 0) connection->set_held(held);
    outcome = Outcome();
    ProgressConnection* current = connection.get();
    Continue(
        state, &file, current,
        [&](std::int64_t position) {
          if (positioned) return;
          positioned = true;
          // The bar starts once the service has said where it stands; its rate counts from there.
          start_bytes_ = position;
          if (progress_ == nullptr) return;
          bar.reset(new ProgressBar(progress_, file.size(), start_bytes_));
          current->set_bar(bar.get());
          if (retries_ != nullptr) retries_->set_bar(bar.get());
        },
        &outcome);
    if (!MayRecover(outcome.status, *connection, recovery) || !PauseBeforeRecovery(recovery + 1))
      break;
  }
  if (bar) bar->Finish();
  if (retries_ != nullptr) retries_->set_bar(nullptr);
  seconds_ = SecondsSince(start);
  return Finish(outcome, *connection, what);
}

}  // namespace quire_cli
