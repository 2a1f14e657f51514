// The desktop application's window: the signed-in user's documents in a table, upload (button or
// drop) with progress and Cancel, download of the selected document to a file, delete under the
// entity tag of the listing, refresh. Every operation is asynchronous: the library's callbacks run
// from Qt's event loop (QtEventLoopDriver), so the window never waits for the network.
#pragma once

#include <QMainWindow>
#include <QString>
#include <QUrl>
#include <cstdint>
#include <memory>
#include <vector>

class QLabel;
class QSaveFile;
class QProgressBar;
class QPushButton;
class QTableWidget;

namespace kestrel {
namespace quire {
class Connection;
class ContentDownload;
class DocsService;
class ResumableUploader;
class UserInfoService;
}  // namespace quire
}  // namespace kestrel

namespace desktop_example {

class MainWindow : public QMainWindow {
 public:
  // One document as the last listing showed it.
  struct Document {
    QString title;
    QString type;
    QString updated;
    bool starred = false;
    bool removed = false;
    QString etag;
    QUrl edit_link;
    QUrl content_src;
  };

  // Signs in with `token` (the transport must be configured already). Uploads go in chunks of
  // `chunk_size` bytes, read from the file as they go. Lists the documents and asks for the e-mail
  // address at once. Transient failures (a dropped connection, 503, 429...) are retried: those of
  // an upload by the uploader itself, which goes on from what the service holds; those of the
  // listing, the e-mail address and the delete by a RetryingConnection under the services.
  MainWindow(const QString& token, std::uint32_t chunk_size, QWidget* parent = nullptr);
  ~MainWindow() override;

  // What the buttons and drops do; public so that a test drives them as a person would.
  void Refresh();
  void UploadFile(const QString& path);
  // Cancels the upload or the download under way, at once: the transfer stops on the wire and an
  // upload's document is not created.
  void CancelUpload();
  void DownloadSelectedTo(const QString& path);
  void DeleteSelected();

  // For tests: what the window shows.
  QTableWidget* table() const { return table_; }
  QProgressBar* progress() const { return progress_; }
  QPushButton* cancel_button() const { return cancel_; }
  QString account_text() const;
  QString message_text() const;
  const std::vector<Document>& documents() const { return documents_; }
  bool busy() const { return uploading_ || downloading_ || listing_ || deleting_; }
  bool uploading() const { return uploading_; }
  bool listing() const { return listing_; }
  // How many times the progress bar moved during the last upload.
  int progress_moves() const { return progress_moves_; }

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void ShowMessage(const QString& text, bool error);
  void UpdateButtons();
  const Document* Selected() const;
  // A sentence for a failed request.
  static QString Explain(int status, const QString& action);

  kestrel::quire::DocsService* docs_;
  kestrel::quire::UserInfoService* user_info_;
  // The uploads' own connection (it carries the version and authorisation lines) and the uploader
  // that reads the file chunk by chunk, reports bytes as they leave and recovers by itself.
  kestrel::quire::Connection* upload_connection_;
  kestrel::quire::ResumableUploader* uploader_;
  // Every callback checks this first: the window may be gone when a request completes.
  std::shared_ptr<bool> alive_;

  QTableWidget* table_;
  QLabel* account_;
  QLabel* message_;
  QProgressBar* progress_;
  QPushButton* refresh_;
  QPushButton* upload_;
  QPushButton* cancel_;
  QPushButton* download_;
  QPushButton* delete_;

  std::vector<Document> documents_;
  // The download under way (kept until the next one starts: it may not go inside its callback)
  // and the file it writes, which replaces the chosen one only when complete.
  std::unique_ptr<kestrel::quire::ContentDownload> content_download_;
  std::unique_ptr<QSaveFile> download_file_;
  QString upload_title_;
  bool uploading_ = false;
  bool downloading_ = false;
  bool listing_ = false;
  bool deleting_ = false;
  int progress_moves_ = 0;
};

}  // namespace desktop_example
