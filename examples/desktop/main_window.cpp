#include "main_window.h"

#include <QDateTime>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QSaveFile>
#include <QStatusBar>
#include <QTableWidget>
#include <QVBoxLayout>

#include <kestrel/base/main_loop.h>
#include <quire/quire.h>

namespace desktop_example {
namespace {

using kestrel::quire::DocsEntry;
using kestrel::quire::DocsFeed;
using kestrel::quire::NetworkResponseInfo;

const char kUploadUrl[] = "https://docs.quire.example/upload/feeds/default/private/full";

QString XmlEscaped(const QString& text) { return text.toHtmlEscaped(); }

// A policy of at most `attempts` attempts in a row, waiting from `first_wait` up to `longest_wait`
// seconds between them, and giving up `deadline` seconds after the first failure.
kestrel::quire::RetryPolicy Policy(int attempts, double first_wait, double longest_wait,
                                   double deadline) {
  kestrel::quire::RetryPolicy policy;
  policy.set_max_attempts(attempts);
  policy.set_base_backoff_seconds(first_wait);
  policy.set_max_backoff_seconds(longest_wait);
  policy.set_total_deadline_seconds(deadline);
  return policy;
}

// The retries of the window's requests: a few, soon, so that a person waits seconds, not minutes,
// for a message when the service stays away.
kestrel::quire::RetryPolicy WindowPolicy() { return Policy(3, 0.25, 2.0, 15.0); }

// The retries of an upload: more patient, since a large upload that has come far is worth a wait;
// any progress starts the count again, so only a service that stays away ends it.
kestrel::quire::RetryPolicy UploadPolicy() { return Policy(6, 0.5, 8.0, 60.0); }

}  // namespace

MainWindow::MainWindow(const QString& token, std::uint32_t chunk_size, QWidget* parent)
    : QMainWindow(parent), alive_(std::make_shared<bool>(true)) {
  // Each service owns its retrying connection, which owns a Connection of its own.
  docs_ = new kestrel::quire::DocsService(
      new kestrel::quire::RetryingConnection(nullptr, WindowPolicy()));
  docs_->SetOAuth2AuthToken(token);
  user_info_ = new kestrel::quire::UserInfoService(
      new kestrel::quire::RetryingConnection(nullptr, WindowPolicy()));
  user_info_->SetOAuth2AuthToken(token);
  // The uploader applies its own policy, so its connection is a plain one.
  upload_connection_ = new kestrel::quire::Connection();
  upload_connection_->Init(
      {QStringLiteral("Quire-Version: %1").arg(QLatin1String(kestrel::quire::kProtocolVersion)),
       QStringLiteral("Authorization: Bearer ") + token});
  uploader_ = new kestrel::quire::ResumableUploader(upload_connection_, chunk_size, UploadPolicy());

  setWindowTitle(QStringLiteral("quire documents"));
  setAcceptDrops(true);
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  auto* buttons = new QHBoxLayout();
  refresh_ = new QPushButton(QStringLiteral("Refresh"), central);
  upload_ = new QPushButton(QStringLiteral("Upload…"), central);
  cancel_ = new QPushButton(QStringLiteral("Cancel"), central);
  download_ = new QPushButton(QStringLiteral("Download…"), central);
  delete_ = new QPushButton(QStringLiteral("Delete"), central);
  for (QPushButton* button : {refresh_, upload_, cancel_, download_, delete_}) {
    buttons->addWidget(button);
  }
  buttons->addStretch();
  layout->addLayout(buttons);
  table_ = new QTableWidget(0, 5, central);
  table_->setHorizontalHeaderLabels({QStringLiteral("Title"), QStringLiteral("Type"),
                                     QStringLiteral("Updated"), QStringLiteral("Starred"),
                                     QStringLiteral("Removed")});
  table_->setSelectionBehavior(QAbstractItemView::SelectRows);
  table_->setSelectionMode(QAbstractItemView::SingleSelection);
  table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  table_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
  table_->verticalHeader()->setVisible(false);
  layout->addWidget(table_);
  message_ = new QLabel(central);
  message_->setWordWrap(true);
  layout->addWidget(message_);
  setCentralWidget(central);

  account_ = new QLabel(QStringLiteral("Signing in…"), this);
  progress_ = new QProgressBar(this);
  progress_->setRange(0, 1000);
  progress_->setValue(0);
  progress_->setTextVisible(true);
  statusBar()->addWidget(account_, 1);
  statusBar()->addPermanentWidget(progress_);

  connect(refresh_, &QPushButton::clicked, this, [this] { Refresh(); });
  connect(upload_, &QPushButton::clicked, this, [this] {
    const QString path = QFileDialog::getOpenFileName(this, QStringLiteral("Upload a file"));
    if (!path.isEmpty()) UploadFile(path);
  });
  connect(cancel_, &QPushButton::clicked, this, [this] { CancelUpload(); });
  connect(download_, &QPushButton::clicked, this, [this] {
    const Document* document = Selected();
    if (document == nullptr) return;
    const QString path =
        QFileDialog::getSaveFileName(this, QStringLiteral("Save the document as"), document->title);
    if (!path.isEmpty()) DownloadSelectedTo(path);
  });
  connect(delete_, &QPushButton::clicked, this, [this] { DeleteSelected(); });
  connect(table_, &QTableWidget::itemSelectionChanged, this, [this] { UpdateButtons(); });
  resize(820, 480);

  // Byte progress as the chunks leave: the bar moves within a chunk, not only between two.
  uploader_->set_progress_callback(
      [this](const kestrel::quire::ResumableUploader::Progress& progress) {
        if (progress.total_bytes <= 0) return;
        const int value = static_cast<int>(progress.bytes_sent * 1000 / progress.total_bytes);
        if (value != progress_->value()) {
          progress_->setValue(value);
          ++progress_moves_;
        }
      });

  std::weak_ptr<bool> alive = alive_;
  user_info_->GetUserEmail([this, alive](NetworkResponseInfo info, QString email) {
    if (alive.expired()) return;
    account_->setText(info.status == 0 ? QStringLiteral("Signed in as ") + email
                                       : Explain(info.status, QStringLiteral("signing in")));
  });
  Refresh();
}

MainWindow::~MainWindow() {
  // The services may go only after their last callback: let what is in flight end. The uploader
  // may go at any time (a running upload is dropped, its request stopped), but the transfers are
  // cancelled first so that the wait is short.
  CancelUpload();
  kestrel::MainLoop::Default()->RunUntil([this] { return !busy(); }, 60.0);
  alive_.reset();
  content_download_.reset();
  delete uploader_;
  delete upload_connection_;
  delete user_info_;
  delete docs_;
}

QString MainWindow::account_text() const { return account_->text(); }
QString MainWindow::message_text() const { return message_->text(); }

void MainWindow::ShowMessage(const QString& text, bool error) {
  message_->setText(text);
  message_->setStyleSheet(error ? QStringLiteral("color: #b00020;") : QString());
}

void MainWindow::UpdateButtons() {
  const bool selected = Selected() != nullptr;
  refresh_->setEnabled(!listing_);
  upload_->setEnabled(!uploading_);
  cancel_->setEnabled(uploading_ || downloading_);
  download_->setEnabled(selected && !downloading_);
  delete_->setEnabled(selected && !deleting_);
}

const MainWindow::Document* MainWindow::Selected() const {
  const QList<QTableWidgetItem*> items = table_->selectedItems();
  if (items.isEmpty()) return nullptr;
  const int row = items.first()->row();
  return row >= 0 && row < static_cast<int>(documents_.size()) ? &documents_[row] : nullptr;
}

QString MainWindow::Explain(int status, const QString& action) {
  if (status == 2) {
    return QStringLiteral(
               "Could not reach the service while %1. Check the network connection and "
               "try again.")
        .arg(action);
  }
  if (status == 1) {
    return QStringLiteral("The service's answer could not be read while %1.").arg(action);
  }
  if (status == 401 || status == 403) {
    return QStringLiteral("The service refused the sign-in while %1 (HTTP %2). Sign in again.")
        .arg(action)
        .arg(status);
  }
  if (status == 404 || status == 410) {
    return QStringLiteral("The document no longer exists (HTTP %1). Refresh the list.").arg(status);
  }
  if (status == 412) {
    return QStringLiteral(
               "The document changed since the list was loaded, so it was not %1. "
               "Refresh the list, check the document, and try again.")
        .arg(action);
  }
  return QStringLiteral("The service answered HTTP %1 while %2. Try again later.")
      .arg(status)
      .arg(action);
}

void MainWindow::Refresh() {
  if (listing_) return;
  listing_ = true;
  UpdateButtons();
  std::weak_ptr<bool> alive = alive_;
  docs_->GetFeed([this, alive](NetworkResponseInfo info, const DocsFeed& feed) {
    if (alive.expired()) return;
    listing_ = false;
    if (info.status != 0) {
      ShowMessage(Explain(info.status, QStringLiteral("listing the documents")), true);
      UpdateButtons();
      return;
    }
    documents_.clear();
    for (const DocsEntry* entry : feed.entries) {
      Document document;
      document.title = entry->title;
      document.type = entry->content_type;
      document.updated = entry->updated;
      document.starred = entry->starred;
      document.removed = entry->removed;
      document.etag = entry->etag;
      document.edit_link = entry->edit_link;
      document.content_src = entry->content_src;
      documents_.push_back(document);
    }
    table_->setRowCount(static_cast<int>(documents_.size()));
    for (int row = 0; row < static_cast<int>(documents_.size()); ++row) {
      const Document& document = documents_[row];
      // "2026-11-23T07:29:41.123Z" in the user's time zone, to the minute.
      QDateTime updated = QDateTime::fromString(document.updated, Qt::ISODateWithMs);
      if (!updated.isValid()) updated = QDateTime::fromString(document.updated, Qt::ISODate);
      const QString when = updated.isValid()
                               ? updated.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"))
                               : document.updated;
      const QStringList cells = {document.title, document.type, when,
                                 document.starred ? QStringLiteral("★") : QString(),
                                 document.removed ? QStringLiteral("yes") : QString()};
      for (int column = 0; column < cells.size(); ++column) {
        table_->setItem(row, column, new QTableWidgetItem(cells[column]));
      }
    }
    UpdateButtons();
  });
}

void MainWindow::UploadFile(const QString& path) {
  if (uploading_) {
    ShowMessage(QStringLiteral("An upload is under way; wait for it or cancel it first."), true);
    return;
  }
  const QFileInfo info(path);
  if (!info.isFile() || !info.isReadable()) {
    ShowMessage(QStringLiteral("Cannot read %1: it is not a readable file.").arg(path), true);
    return;
  }
  if (info.size() == 0) {
    ShowMessage(QStringLiteral("%1 is empty; there is nothing to upload.").arg(path), true);
    return;
  }
  upload_title_ = info.fileName();
  uploading_ = true;
  progress_moves_ = 0;
  progress_->setValue(0);
  ShowMessage(QStringLiteral("Uploading %1…").arg(upload_title_), false);
  UpdateButtons();
  std::weak_ptr<bool> alive = alive_;
  // The file is read chunk by chunk as the upload goes, whatever its size; a file that changes
  // meanwhile ends the upload before a changed byte is sent.
  uploader_->Start(
      QString::fromLatin1(kUploadUrl),
      QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>%1</title></entry>")
          .arg(XmlEscaped(upload_title_)),
      QStringLiteral("application/octet-stream"), path,
      [this, alive, path](NetworkResponseInfo info, QByteArray) {
        if (alive.expired()) return;
        uploading_ = false;
        using Uploader = kestrel::quire::ResumableUploader;
        const Uploader::Error error = uploader_->error();
        if (info.status == 0 || (info.status >= 200 && info.status < 300)) {
          progress_->setValue(progress_->maximum());
          ShowMessage(QStringLiteral("Uploaded %1.").arg(upload_title_), false);
          Refresh();
        } else if (info.status == kestrel::quire::kStatusCancelled) {
          ShowMessage(QStringLiteral("The upload of %1 was cancelled.").arg(upload_title_), false);
        } else if (error == Uploader::kSourceUnreadable) {
          ShowMessage(QStringLiteral("Cannot read %1; nothing was uploaded.").arg(path), true);
        } else if (error == Uploader::kSourceChanged) {
          ShowMessage(QStringLiteral("%1 changed while it was being uploaded, so the upload was "
                                     "stopped. Upload it again once it no longer changes.")
                          .arg(path),
                      true);
        } else if (error == Uploader::kSessionGone || error == Uploader::kBadRange ||
                   error == Uploader::kNoSessionAddress) {
          ShowMessage(QStringLiteral("The service lost track of the upload of %1, so nothing was "
                                     "created. Upload it again.")
                          .arg(upload_title_),
                      true);
        } else {
          ShowMessage(Explain(info.status, QStringLiteral("uploading ") + upload_title_), true);
        }
        UpdateButtons();
      });
}

void MainWindow::CancelUpload() {
  if (downloading_ && content_download_) content_download_->Cancel();
  if (!uploading_) return;
  // Stops the chunk in flight on the wire; the upload's callback then reports the cancellation.
  uploader_->Cancel();
  ShowMessage(QStringLiteral("Cancelling the upload of %1…").arg(upload_title_), false);
  UpdateButtons();
}

void MainWindow::DownloadSelectedTo(const QString& path) {
  const Document* document = Selected();
  if (document == nullptr || downloading_) return;
  // Written into a temporary file beside the chosen one, which it replaces only when complete: a
  // failed or cancelled download leaves no torn file behind.
  download_file_ = std::make_unique<QSaveFile>(path);
  if (!download_file_->open(QIODevice::WriteOnly)) {
    ShowMessage(QStringLiteral("Cannot write %1: %2.").arg(path, download_file_->errorString()),
                true);
    download_file_.reset();
    return;
  }
  downloading_ = true;
  progress_->setValue(0);
  const QString title = document->title;
  ShowMessage(QStringLiteral("Downloading %1…").arg(title), false);
  UpdateButtons();
  std::weak_ptr<bool> alive = alive_;
  kestrel::quire::DownloadOptions options;
  options.progress = [this, alive](std::uint64_t written, std::int64_t total) {
    if (alive.expired() || total <= 0) return;
    progress_->setValue(static_cast<int>(written * 1000 / static_cast<std::uint64_t>(total)));
  };
  content_download_.reset(new kestrel::quire::ContentDownload(docs_));
  content_download_->Start(
      document->content_src, kestrel::quire::DownloadTarget::ForDevice(download_file_.get()),
      options, [this, alive, path, title](const kestrel::quire::DownloadResult& result) {
        if (alive.expired()) return;
        downloading_ = false;
        using kestrel::quire::DownloadOutcome;
        if (result.outcome == DownloadOutcome::kComplete && download_file_->commit()) {
          progress_->setValue(1000);
          ShowMessage(QStringLiteral("Saved %1 to %2.").arg(title, path), false);
        } else {
          download_file_->cancelWriting();
          download_file_->commit();  // discards the temporary file
          progress_->setValue(0);
          if (result.outcome == DownloadOutcome::kCancelled) {
            ShowMessage(QStringLiteral("The download of %1 was cancelled.").arg(title), false);
          } else if (result.outcome == DownloadOutcome::kComplete ||
                     result.outcome == DownloadOutcome::kWriteFailed) {
            ShowMessage(QStringLiteral("Cannot write %1: %2.")
                            .arg(path, result.error.isEmpty() ? download_file_->errorString()
                                                              : result.error),
                        true);
          } else if (result.outcome == DownloadOutcome::kHttpError ||
                     result.outcome == DownloadOutcome::kNetworkFailure) {
            ShowMessage(Explain(result.status, QStringLiteral("downloading ") + title), true);
          } else {
            ShowMessage(QStringLiteral("The download of %1 failed: %2").arg(title, result.error),
                        true);
          }
        }
        UpdateButtons();
      });
}

void MainWindow::DeleteSelected() {
  const Document* document = Selected();
  if (document == nullptr || deleting_) return;
  deleting_ = true;
  UpdateButtons();
  const QString title = document->title;
  std::weak_ptr<bool> alive = alive_;
  // Guarded by the entity tag of the listing: a document changed since is not deleted (412).
  docs_->DeleteEntry(
      document->edit_link, document->etag, [this, alive, title](NetworkResponseInfo info) {
        if (alive.expired()) return;
        deleting_ = false;
        if (info.status == 0) {
          ShowMessage(QStringLiteral("Deleted %1.").arg(title), false);
          Refresh();
        } else {
          ShowMessage(
              Explain(info.status, info.status == 412 ? QStringLiteral("deleted")
                                                      : QStringLiteral("deleting ") + title),
              true);
        }
        UpdateButtons();
      });
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
  const QList<QUrl> urls = event->mimeData()->urls();
  if (urls.isEmpty() || !urls.first().isLocalFile()) return;
  event->acceptProposedAction();
  UploadFile(urls.first().toLocalFile());
}

}  // namespace desktop_example
