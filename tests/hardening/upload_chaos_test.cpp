// Chaos: twenty resumable uploads of seeded random sizes (up to 64 MiB) and chunk sizes (256 KiB to
// 8 MiB) through ResumableUploader and the HTTPS transport, against an emulator that fails one
// request in ten at random (503s with Retry-After: 0, connections cut part-way through a body).
// Every upload must end in success by itself, and every document must hold exactly its file's
// bytes, checked once the emulator runs again without faults.
#include <gtest/gtest.h>

#include <QFile>
#include <QString>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "quire/upload/resumable_uploader.h"
#include "tests/hardening/fault_emulator.h"
#include "tests/hardening/library_client.h"
#include "tests/support/atom_view.h"
#include "tests/support/data_pattern.h"
#include "tests/support/http_client.h"

namespace quire_test::hardening {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

constexpr int kUploads = 20;
constexpr std::int64_t kMaxSize = 64 << 20;
constexpr std::uint32_t kMinChunk = 256 << 10;
constexpr std::uint32_t kMaxChunk = 8 << 20;

// `size` bytes of the data pattern's stream numbered `seed`.
std::string SeededBytes(std::int64_t size, std::uint64_t seed) {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  quire_test::FillPattern(&bytes[0], quire_test::PatternStream(seed), bytes.size());
  return bytes;
}

struct Upload {
  std::int64_t size = 0;
  std::uint32_t chunk = 0;
  std::string sha256;
  std::string content_src;
};

TEST(UploadChaosTest, TwentyUploadsUnderTenPercentFailuresEndByteIdentical) {
  FaultEmulator emulator;
  ASSERT_TRUE(emulator.Start({"--fault-fail-percent", "5", "--fault-cut-percent", "5",
                              "--fault-retry-after", "0", "--fault-seed", "1307"}));
  quire_test::TempDir files;
  std::mt19937_64 random(20261123);
  std::vector<Upload> uploads(kUploads);
  int retries = 0;
  {
    LibraryClient::Options options;
    options.port = emulator.port();
    options.trusted_files = {emulator.certificate_file()};
    LibraryClient client(options);
    ASSERT_TRUE(client.configured());
    // Quick retries: the emulator asks for none (Retry-After: 0); cuts back off a little.
    RetryPolicy policy;
    policy.set_max_attempts(10);
    policy.set_base_backoff_seconds(0.02);
    policy.set_max_backoff_seconds(0.2);
    for (int i = 0; i < kUploads; ++i) {
      Upload& upload = uploads[i];
      upload.size = std::uniform_int_distribution<std::int64_t>(1, kMaxSize)(random);
      upload.chunk = std::uniform_int_distribution<std::uint32_t>(kMinChunk, kMaxChunk)(random);
      const std::string bytes = SeededBytes(upload.size, static_cast<std::uint64_t>(i) + 1);
      upload.sha256 = quire_test::Sha256Hex(bytes);
      const QString path = QString::fromStdString(files.path() + "/" + std::to_string(i) + ".bin");
      {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes.data(), static_cast<qint64>(bytes.size())),
                  static_cast<qint64>(bytes.size()));
      }
      ResumableUploader uploader(&client.upload_connection(), upload.chunk, policy);
      bool done = false;
      int status = -1;
      std::string entry;
      uploader.Start(
          QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"),
          QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>chaos %1</title>"
                         "</entry>")
              .arg(i),
          QStringLiteral("application/octet-stream"), path,
          [&](NetworkResponseInfo info, QByteArray body) {
            done = true;
            status = info.status;
            entry = body.toStdString();
          });
      ASSERT_TRUE(kestrel::MainLoop::Default()->RunUntil([&] { return done; }, 600));
      ASSERT_EQ(status, 0) << "upload " << i << " of " << upload.size << " bytes in chunks of "
                           << upload.chunk << ": error " << uploader.error();
      retries += uploader.progress().retries;
      const quire_test::EntryView view = quire_test::AtomView::ParseEntry(entry);
      ASSERT_TRUE(view.parsed) << entry;
      upload.content_src = view.content_src;
      QFile::remove(path);
    }
    ASSERT_TRUE(client.WaitForIdle(30));
  }
  // The faults did happen (a seed that met none would prove nothing).
  EXPECT_GT(retries, kUploads / 2);
  std::cout << "chaos: " << kUploads << " uploads, " << retries << " retries" << std::endl;

  ASSERT_TRUE(emulator.Start({}));
  quire_test::HttpClient http(emulator.port(), emulator.certificate_file());
  for (int i = 0; i < kUploads; ++i) {
    const quire_test::HttpResult got =
        http.Send("GET", uploads[i].content_src,
                  {"Quire-Version: 3.0", std::string("Authorization: Bearer ") + kToken});
    ASSERT_EQ(got.status, 200) << i;
    EXPECT_EQ(static_cast<std::int64_t>(got.body.size()), uploads[i].size) << i;
    EXPECT_EQ(quire_test::Sha256Hex(got.body), uploads[i].sha256) << i;
  }
}

}  // namespace
}  // namespace quire_test::hardening
