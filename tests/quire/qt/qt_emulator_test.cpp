// The library driven by Qt's event loop against the emulator over real HTTPS: callbacks arrive in
// Qt's loop, chained operations (an upload's chunks, a request issued from a callback) proceed
// without anyone calling the main loop, and nothing wakes the host once everything is done.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <algorithm>
#include <memory>
#include <thread>

#include "kestrel/base/memory_manager.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/qt/qt_event_loop_driver.h"
#include "quire/services/endpoints.h"
#include "tests/hardening/fault_emulator.h"
#include "tests/hardening/library_client.h"
#include "tests/quire/qt/qt_test_app.h"
#include "tests/support/data_pattern.h"

namespace {

using quire_test::PatternBytes;

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_test::hardening::LibraryClient;
using quire_test::qt::RunQtLoop;

class QtEmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    quire_test::qt::App();
    ASSERT_TRUE(emulator_.Start({}));
    LibraryClient::Options options;
    options.port = emulator_.port();
    options.trusted_files = {emulator_.certificate_file()};
    options.chunk_size = 64 * 1024;
    client_ = std::make_unique<LibraryClient>(options);
    ASSERT_TRUE(client_->configured());
    driver_ = std::make_unique<QtEventLoopDriver>();
  }

  void TearDown() override {
    driver_.reset();
    if (client_) {
      EXPECT_TRUE(client_->WaitForIdle(10.0));
    }
    client_.reset();
  }

  quire_test::hardening::FaultEmulator emulator_;
  std::unique_ptr<LibraryClient> client_;
  std::unique_ptr<QtEventLoopDriver> driver_;
};

TEST_F(QtEmulatorTest, CallbacksArriveInQtsLoopAndChainedOperationsProceed) {
  const auto main_thread = std::this_thread::get_id();
  bool all_on_main_thread = true;
  QString email;
  int create_status = -1;
  int upload_status = -1;
  int feed_status = -1;
  std::vector<QString> titles;
  bool done = false;
  const QByteArray data = PatternBytes(1024 * 1024 + 17, 3);  // 17 chunks of 64 KiB

  // One chain, each step issued from the callback of the one before, as a desktop host does it.
  client_->user_info().GetUserEmail([&](NetworkResponseInfo info, QString address) {
    all_on_main_thread &= std::this_thread::get_id() == main_thread;
    if (info.status == 0) email = address;
    client_->docs().CreateEntryWithContent(
        QUrl(QString::fromLatin1(kestrel::quire::DocsFeedUrl)), QStringLiteral("small"),
        QStringLiteral("text/plain"), PatternBytes(1000, 1),
        [&](NetworkResponseInfo created, const DocsEntry&) {
          all_on_main_thread &= std::this_thread::get_id() == main_thread;
          create_status = created.status;
          client_->uploads().ResumableUpload(
              QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"),
              QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>big</title>"
                             "</entry>"),
              QStringLiteral("application/octet-stream"), data,
              [&](NetworkResponseInfo uploaded, QByteArray) {
                all_on_main_thread &= std::this_thread::get_id() == main_thread;
                upload_status = uploaded.status;
                client_->docs().GetFeed([&](NetworkResponseInfo listed, const DocsFeed& feed) {
                  all_on_main_thread &= std::this_thread::get_id() == main_thread;
                  feed_status = listed.status;
                  for (DocsEntry* entry : feed.entries) titles.push_back(entry->title);
                  done = true;
                });
              });
        });
  });
  ASSERT_TRUE(RunQtLoop([&] { return done; }, 60.0)) << "the chain stalled in Qt's loop";
  EXPECT_TRUE(all_on_main_thread);
  EXPECT_EQ(email, QString::fromLatin1(quire_test::hardening::kAccount));
  EXPECT_EQ(create_status, 0);
  EXPECT_EQ(upload_status, 0);
  EXPECT_EQ(feed_status, 0);
  EXPECT_EQ(titles.size(), 2u) << "the created and the uploaded document";
  EXPECT_EQ(std::count(titles.begin(), titles.end(), QStringLiteral("big")), 1)
      << (titles.empty() ? std::string() : titles[0].toStdString());
  // Every step of the chain woke Qt's loop through the hook; none waited for a timer.
  EXPECT_GE(driver_->wake_ups(), 4 + 17);
}

TEST_F(QtEmulatorTest, IdleHostIsNotWokenAfterItsRequestsEnd) {
  bool done = false;
  client_->docs().GetFeed([&](NetworkResponseInfo info, const DocsFeed&) {
    EXPECT_EQ(info.status, 0);
    done = true;
  });
  ASSERT_TRUE(RunQtLoop([&] { return done; }, 30.0));
  // The transport may still hand a job or two to the loop as it finishes; then nothing.
  RunQtLoop([] { return false; }, 0.2);
  const long long wake_ups = driver_->wake_ups();
  const long long timer_wake_ups = driver_->timer_wake_ups();
  RunQtLoop([] { return false; }, 1.0);
  EXPECT_EQ(driver_->wake_ups(), wake_ups) << "woken while idle";
  EXPECT_EQ(driver_->timer_wake_ups(), timer_wake_ups) << "a timer fired while idle";
  EXPECT_FALSE(driver_->timer_active());
}

TEST_F(QtEmulatorTest, FailureStillReachesItsCallbackInQtsLoop) {
  emulator_.Stop();
  int status = -1;
  client_->docs().GetFeed([&](NetworkResponseInfo info, const DocsFeed&) { status = info.status; });
  ASSERT_TRUE(RunQtLoop([&] { return status != -1; }, 30.0));
  EXPECT_EQ(status, 2) << "a refused connection is a network failure";
}

}  // namespace
