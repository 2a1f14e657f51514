// The desktop application's window: the signed-in user's documents in a table, upload (button or
// drop) with progress and Cancel, download of the selected document to a file, delete under the
// entity tag of the listing, refresh. Every operation is asynchronous: the library's callbacks run
// from Qt's event loop (QtEventLoopDriver), so the window never waits for the network.
#pragma once

#include <QByteArray>
#include <QFile>
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
class ConnectionUtils;
class ContentDownload;
class DocsService;
class UserInfoService;
}  // namespace quire
}  // namespace kestrel

namespace desktop_example {

class UploadConnection;

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
  // `chunk_size` bytes. Lists the documents and asks for the e-mail address at once.
  MainWindow(const QString& token, std::uint32_t chunk_size, QWidget* parent = nullptr);
  ~MainWindow() override;

  // What the buttons and drops do; public so that a test drives them as a person would.
  void Refresh();
  void UploadFile(const QString& path);
  // Cancels the upload (after the chunk under way) or the download (at once) under way.
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
  // The highest progress value seen during the last upload, and how many times it moved.
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
  UploadConnection* upload_connection_;
  kestrel::quire::ConnectionUtils* uploads_;
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
  QFile upload_file_;       // mapped into memory while the upload runs
  QByteArray upload_data_;  // a view of the mapping, no copy
  QString upload_title_;
  bool uploading_ = false;
  bool downloading_ = false;
  bool listing_ = false;
  bool deleting_ = false;
  int progress_moves_ = 0;
};

}  // namespace desktop_example
