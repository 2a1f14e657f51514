// The desktop application's window used as a person uses it, under Qt's offscreen platform,
// against the emulator over real HTTPS: the list, an upload dropped on the window with the progress
// bar moving to the end, a larger upload during which the window keeps serving timers and clicks
// and which is then cancelled half-way, a download compared byte for byte, a delete
// refused because the document changed since the listing (412) and then done. Saves a screenshot
// of the window (QUIRE_DESKTOP_SCREENSHOT names the file; by default it goes to the build folder).
#include <gtest/gtest.h>

#include <QApplication>
#include <QDropEvent>
#include <QFile>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <memory>
#include <string>
#include <vector>

#include "kestrel/net/curl_transport.h"
#include "main_window.h"
#include "quire/qt/qt_event_loop_driver.h"
#include "quire/services/docs_service.h"
#include "tests/hardening/fault_emulator.h"
#include "tests/quire/qt/qt_test_app.h"
#include "tests/support/data_pattern.h"

namespace {

using quire_test::PatternBytes;

using desktop_example::MainWindow;
using quire_test::qt::RunQtLoop;

class DesktopWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "desktop-window-test";
    static char* argv[] = {name, nullptr};
    if (QApplication::instance() == nullptr) new QApplication(argc, argv);
  }

  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    ASSERT_NO_FATAL_FAILURE(StartEmulator({}));
    driver_ = std::make_unique<kestrel::quire::QtEventLoopDriver>();
  }

  // (Re)starts the emulator with `args` and points the library's hosts at it.
  void StartEmulator(const std::vector<std::string>& args) {
    ASSERT_TRUE(emulator_.Start(args));
    kestrel::net::CurlTransportConfig config;
    for (const char* host : {"docs.quire.example", "api.quire.example"}) {
      config.host_mappings.push_back(
          {QString::fromLatin1(host), QStringLiteral("127.0.0.1"), emulator_.port()});
    }
    config.extra_ca_certificate_files.push_back(
        QString::fromStdString(emulator_.certificate_file()));
    ASSERT_TRUE(kestrel::net::CurlTransport::Default()->Configure(config));
  }

  void TearDown() override { driver_.reset(); }

  QString WriteFile(const char* name, const QByteArray& bytes) {
    const QString path = dir_.filePath(QString::fromLatin1(name));
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_EQ(file.write(bytes), bytes.size());
    return path;
  }

  // Drops `path` on the window, as a file manager would.
  static void Drop(MainWindow* window, const QString& path) {
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(path)});
    const QPoint at = window->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &enter);
    ASSERT_TRUE(enter.isAccepted()) << "the window does not take dropped files";
    QDropEvent drop(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &drop);
  }

  static int RowOf(MainWindow* window, const QString& title) {
    for (int row = 0; row < window->table()->rowCount(); ++row) {
      if (window->table()->item(row, 0)->text() == title) return row;
    }
    return -1;
  }

  QTemporaryDir dir_;
  quire_test::hardening::FaultEmulator emulator_;
  std::unique_ptr<kestrel::quire::QtEventLoopDriver> driver_;
};

TEST_F(DesktopWindowTest, ListUploadCancelDownloadDelete) {
  auto window = std::make_unique<MainWindow>(QStringLiteral("quire-demo-token"), 256 * 1024);
  window->show();
  ASSERT_TRUE(
      RunQtLoop([&] { return !window->busy() && window->account_text().contains('@'); }, 30.0));
  EXPECT_EQ(window->account_text(), QStringLiteral("Signed in as demo@quire.example"));
  EXPECT_EQ(window->table()->rowCount(), 0);

  // Upload by dropping a file: the progress bar moves as the bytes leave and reaches the end.
  const QByteArray report = PatternBytes(3 * 1024 * 1024 + 123, 1);
  Drop(window.get(), WriteFile("report.bin", report));
  EXPECT_TRUE(window->uploading());
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy() && window->table()->rowCount() == 1; }, 60.0))
      << window->message_text().toStdString();
  EXPECT_GE(window->progress_moves(), 12) << "the bar did not move as the bytes left";
  EXPECT_EQ(window->progress()->value(), window->progress()->maximum());
  EXPECT_EQ(window->table()->item(0, 0)->text(), QStringLiteral("report.bin"));
  EXPECT_EQ(window->table()->item(0, 1)->text(), QStringLiteral("application/octet-stream"));

  // A second, larger upload. While it runs the window keeps handling events: a timer keeps
  // firing, and a click on Refresh gets its list back before the upload ends. The file is read as
  // the upload goes, so the bar moves many times per chunk-sized step of the file.
  const QByteArray big = PatternBytes(48 * 1024 * 1024, 2);
  const QString big_path = WriteFile("big.bin", big);
  int ticks = 0;
  QTimer ticker;
  ticker.setInterval(5);
  QObject::connect(&ticker, &QTimer::timeout, [&] { ticks += window->uploading() ? 1 : 0; });
  ticker.start();
  Drop(window.get(), big_path);
  ASSERT_TRUE(window->uploading());
  ASSERT_TRUE(RunQtLoop([&] { return window->progress()->value() >= 50; }, 60.0));
  ASSERT_TRUE(window->uploading());
  QPushButton* refresh_button = nullptr;
  for (QPushButton* button : window->findChildren<QPushButton*>()) {
    if (button->text() == QLatin1String("Refresh")) refresh_button = button;
  }
  ASSERT_NE(refresh_button, nullptr);
  QTest::mouseClick(refresh_button, Qt::LeftButton);
  EXPECT_TRUE(window->listing());
  ASSERT_TRUE(RunQtLoop([&] { return !window->listing(); }, 30.0));
  EXPECT_TRUE(window->uploading()) << "the list came back only after the upload";
  EXPECT_EQ(window->table()->rowCount(), 1);

  // Then cancelled half-way with the Cancel button: the transfer stops at once, the window says
  // so, and the service creates no document.
  ASSERT_TRUE(RunQtLoop([&] { return window->progress()->value() >= 300; }, 60.0));
  ASSERT_TRUE(window->uploading()) << "the upload ended before it could be cancelled";
  const int moves_before_cancel = window->progress_moves();
  ASSERT_TRUE(window->cancel_button()->isEnabled());
  QTest::mouseClick(window->cancel_button(), Qt::LeftButton);
  ASSERT_TRUE(RunQtLoop([&] { return !window->uploading(); }, 10.0));
  ticker.stop();
  EXPECT_GE(ticks, 10) << "the window's timers did not fire during the upload";
  EXPECT_GE(moves_before_cancel, 20) << "the bar did not move with the bytes";
  const int value_at_cancel = window->progress()->value();
  EXPECT_LT(value_at_cancel, window->progress()->maximum());
  EXPECT_EQ(window->message_text(), QStringLiteral("The upload of big.bin was cancelled."));
  EXPECT_FALSE(window->cancel_button()->isEnabled());
  // Nothing moves on after the cancellation, and the list does not gain the document.
  QTest::qWait(200);
  EXPECT_EQ(window->progress()->value(), value_at_cancel);
  window->Refresh();
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  ASSERT_EQ(window->table()->rowCount(), 1) << "a cancelled upload made a document";
  EXPECT_EQ(window->table()->item(0, 0)->text(), QStringLiteral("report.bin"));

  // The screenshot: the list, the signed-in account, the message of the last step.
  const QByteArray shot_path = qgetenv("QUIRE_DESKTOP_SCREENSHOT");
  EXPECT_TRUE(window->grab().save(shot_path.isEmpty() ? dir_.filePath(QStringLiteral("window.png"))
                                                      : QString(shot_path)));

  // Download the selected document to a file: the very bytes.
  window->table()->selectRow(RowOf(window.get(), QStringLiteral("report.bin")));
  const QString saved = dir_.filePath(QStringLiteral("saved.bin"));
  window->DownloadSelectedTo(saved);
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  QFile back(saved);
  ASSERT_TRUE(back.open(QIODevice::ReadOnly)) << window->message_text().toStdString();
  EXPECT_TRUE(back.readAll() == report) << "the downloaded bytes differ";
  EXPECT_EQ(window->progress()->value(), window->progress()->maximum());
  EXPECT_TRUE(window->message_text().startsWith(QLatin1String("Saved report.bin")))
      << window->message_text().toStdString();

  // Someone else changes the document after the listing: the delete is refused (412).
  {
    kestrel::quire::DocsService other;
    other.SetOAuth2AuthToken(QStringLiteral("quire-demo-token"));
    const MainWindow::Document& listed = window->documents()[0];
    int status = -1;
    other.ModifyEntryContent(listed.edit_link, QStringLiteral("text/plain"), PatternBytes(10, 3),
                             [&](kestrel::quire::NetworkResponseInfo info,
                                 const kestrel::quire::DocsEntry&) { status = info.status; });
    ASSERT_TRUE(RunQtLoop([&] { return status != -1; }, 30.0));
    ASSERT_EQ(status, 0);
  }
  window->table()->selectRow(0);
  QPushButton* delete_button = nullptr;
  for (QPushButton* button : window->findChildren<QPushButton*>()) {
    if (button->text() == QLatin1String("Delete")) delete_button = button;
  }
  ASSERT_NE(delete_button, nullptr);
  QTest::mouseClick(delete_button, Qt::LeftButton);
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  EXPECT_TRUE(window->message_text().contains(QLatin1String("changed since the list was loaded")))
      << window->message_text().toStdString();
  EXPECT_EQ(window->table()->rowCount(), 1);

  // After a refresh the delete goes through.
  window->Refresh();
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  window->table()->selectRow(0);
  QTest::mouseClick(delete_button, Qt::LeftButton);
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy() && window->table()->rowCount() == 0; }, 30.0))
      << window->message_text().toStdString();
  EXPECT_TRUE(window->message_text().startsWith(QLatin1String("Deleted")));
  window.reset();
}

// A folder or an empty file is refused at once. The file is read as the upload goes: one that grows
// half-way is noticed before a changed byte is sent, the window says so, and no document is
// created (an upload of a snapshot taken at the start would have completed with stale bytes).
TEST_F(DesktopWindowTest, UnusableOrChangingFileIsNotUploaded) {
  auto window = std::make_unique<MainWindow>(QStringLiteral("quire-demo-token"), 256 * 1024);
  window->show();
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  // What cannot be uploaded is said at once, and nothing starts.
  window->UploadFile(dir_.path());
  EXPECT_FALSE(window->uploading());
  EXPECT_TRUE(window->message_text().contains(QLatin1String("not a readable file")))
      << window->message_text().toStdString();
  window->UploadFile(WriteFile("empty.txt", QByteArray()));
  EXPECT_FALSE(window->uploading());
  EXPECT_TRUE(window->message_text().contains(QLatin1String("nothing to upload")))
      << window->message_text().toStdString();

  const QString path = WriteFile("growing.log", PatternBytes(24 * 1024 * 1024, 4));
  window->UploadFile(path);
  ASSERT_TRUE(RunQtLoop([&] { return window->progress()->value() >= 100; }, 60.0));
  ASSERT_TRUE(window->uploading()) << "the upload ended before the file could change";
  {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::Append));
    ASSERT_EQ(file.write(PatternBytes(4096, 5)), 4096);
  }
  ASSERT_TRUE(RunQtLoop([&] { return !window->uploading(); }, 60.0));
  EXPECT_TRUE(window->message_text().contains(QLatin1String("changed while it was being uploaded")))
      << window->message_text().toStdString();
  window->Refresh();
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  EXPECT_EQ(window->table()->rowCount(), 0) << "a torn document was created";
  window.reset();
}

// A service that answers 503 (Retry-After: 1) to every third request: the sign-in, the listing and
// the upload's chunks are sent again, and the person sees only the upload succeed.
TEST_F(DesktopWindowTest, TransientFailuresAreRetried) {
  ASSERT_NO_FATAL_FAILURE(StartEmulator({"--fault-fail-every", "3"}));
  auto window = std::make_unique<MainWindow>(QStringLiteral("quire-demo-token"), 256 * 1024);
  window->show();
  ASSERT_TRUE(
      RunQtLoop([&] { return !window->busy() && window->account_text().contains('@'); }, 30.0))
      << window->account_text().toStdString() << " / " << window->message_text().toStdString();
  EXPECT_TRUE(window->message_text().isEmpty()) << window->message_text().toStdString();
  const QByteArray notes = PatternBytes(300 * 1024, 6);
  window->UploadFile(WriteFile("notes.bin", notes));
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy() && window->table()->rowCount() == 1; }, 60.0))
      << window->message_text().toStdString();
  EXPECT_EQ(window->message_text(), QStringLiteral("Uploaded notes.bin."));
  EXPECT_EQ(window->progress()->value(), window->progress()->maximum());
  EXPECT_EQ(window->table()->item(0, 0)->text(), QStringLiteral("notes.bin"));
  window.reset();
}

TEST_F(DesktopWindowTest, ServiceThatIsDownIsAMessageNotAFrozenWindow) {
  emulator_.Stop();
  auto window = std::make_unique<MainWindow>(QStringLiteral("quire-demo-token"), 256 * 1024);
  window->show();
  ASSERT_TRUE(RunQtLoop([&] { return !window->busy(); }, 30.0));
  EXPECT_TRUE(window->message_text().contains(QLatin1String("Could not reach the service")))
      << window->message_text().toStdString();
  window.reset();
}

}  // namespace
