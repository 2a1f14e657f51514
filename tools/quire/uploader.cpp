#include "tools/quire/uploader.h"

#include <QDateTime>
#include <QFileInfo>
#include <chrono>
#include <memory>
#include <vector>

#include "kestrel/xml/xml_reader.h"
#include "quire/connection/connection.h"
#include "quire/model/docs_entry.h"
#include "quire/services/endpoints.h"
#include "quire/upload/connection_utils.h"
#include "tools/quire/client.h"
#include "tools/quire/interrupt_handler.h"
#include "tools/quire/mapped_file.h"
#include "tools/quire/progress_bar.h"
#include "tools/quire/progress_connection.h"
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

}  // namespace

Uploader::Uploader(const QString& token, const FailureClassifier& classifier,
                   const QString& state_path, std::ostream* progress)
    : token_(token), classifier_(classifier), state_path_(state_path), progress_(progress) {}

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
  put_answers_ = connection.put_answers();
  InterruptHandler::SetMessage(std::string());
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
  std::unique_ptr<ProgressConnection> connection(
      new ProgressConnection(new kestrel::quire::Connection(), bar.get()));
  connection->Init({QStringLiteral("Quire-Version: %1").arg(kestrel::quire::kProtocolVersion),
                    QStringLiteral("Authorization: Bearer ") + token_});
  Watch(connection.get(), file, state);
  InterruptHandler::SetMessage("interrupted before the service opened the upload; start it again");

  ConnectionUtils utils(chunk_size, connection.get());
  Outcome outcome;
  start_bytes_ = 0;
  utils.ResumableUpload(QString::fromLatin1(start_url.toEncoded()),
                        creates ? Metadata(title) : QString(), content_type, file->data(),
                        [&outcome](NetworkResponseInfo info, QByteArray body) {
                          outcome.done = true;
                          outcome.status = info.status;
                          if (info.status == 0) ParseEntry(body, &outcome);
                        });
  Client::Wait([&outcome] { return outcome.done; });
  if (bar) bar->Finish();
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

  std::unique_ptr<ProgressConnection> connection(
      new ProgressConnection(new kestrel::quire::Connection(), nullptr));
  connection->Init({QStringLiteral("Quire-Version: %1").arg(kestrel::quire::kProtocolVersion),
                    QStringLiteral("Authorization: Bearer ") + token_});
  Watch(connection.get(), &file, state);
  InterruptHandler::SetMessage("interrupted; the upload continues where it stopped with " +
                               ResumeHint(state_path_));

  // Where does the session stand? A PUT without data that names only the total.
  const std::vector<QString> query_headers = {
      QStringLiteral("Content-Range: bytes */%1").arg(file.size())};
  ConnectionParams params{};
  params.method = kestrel::quire::kMethodPut;
  params.url = state.session_url;
  params.body = nullptr;
  params.headers = &query_headers;
  params.collect_response_headers = true;
  params.request_id = 0;

  // The session address was saved when the upload started: failures from here on say that the
  // upload can continue.
  connection->set_session_url(state.session_url);
  ConnectionUtils utils(state.chunk_size, connection.get());
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
  Client::Wait([&query] { return query.done; });
  start_bytes_ = connection->held();

  if (query.status != 308) {
    seconds_ = SecondsSince(start);
    return Finish(query, *connection, what);
  }
  if (!position_known) {
    if (range_present) {
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the service's answer about the upload session of " + what +
                           " could not be read (an unusual Range); try " + ResumeHint(state_path_) +
                           " again later");
    }
    position = 0;  // the session holds nothing yet
  }

  std::unique_ptr<ProgressBar> bar;
  if (progress_ != nullptr) {
    bar.reset(new ProgressBar(progress_, file.size(), start_bytes_));
    connection->set_bar(bar.get());
  }
  Outcome outcome;
  utils.ResumableUploadPut(state.session_url, state.content_type, file.data(), position, query_id,
                           [&outcome](NetworkResponseInfo info, QByteArray body) {
                             outcome.done = true;
                             outcome.status = info.status;
                             if (info.status == 0) ParseEntry(body, &outcome);
                           });
  Client::Wait([&outcome] { return outcome.done; });
  if (bar) bar->Finish();
  connection->set_bar(nullptr);
  seconds_ = SecondsSince(start);
  return Finish(outcome, *connection, what);
}

}  // namespace quire_cli
