// Uploads a file as a new document with the resumable protocol and shows the progress.
//
//   QUIRE_TOKEN=... upload_file FILE [--title TITLE] [--type MEDIA-TYPE] [--chunk-size BYTES]
//                               [--emulator ADDR:PORT --ca-file FILE]
//
// It asks the document list where resumable creations start, then hands the file to
// kestrel::quire::ConnectionUtils, which sends it in chunks of at most --chunk-size bytes (default
// 8 MiB). The uploads go through a ProgressConnection that wraps the library's Connection and
// prints a line after each chunk. The bearer token comes from the environment variable
// QUIRE_TOKEN; --emulator sends the library's two host names to a local quire-server listening on
// ADDR:PORT, whose certificate --ca-file names (its data folder's tls/cert.pem).
//
// Exit status: 0 uploaded, 1 the upload failed, 2 bad command line or unreadable file.
#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QUrl>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <kestrel/base/main_loop.h>
#include <kestrel/xml/xml_reader.h>
#include <quire/quire.h>

#include "../example_options.h"
#include "progress_connection.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using upload_example::ProgressConnection;

int Usage() {
  std::fprintf(stderr,
               "usage: QUIRE_TOKEN=... upload_file FILE [--title TITLE] [--type MEDIA-TYPE]\n"
               "                   [--chunk-size BYTES] [--emulator ADDR:PORT --ca-file FILE]\n");
  return 2;
}

// Runs the main loop until `*done`. The callbacks always come (the network layer gives up on a
// stalled request after 60 seconds), and the objects they use must live until then.
void Wait(const bool* done) {
  kestrel::MainLoop::Default()->RunUntil([done] { return *done; }, 24 * 3600.0);
}

}  // namespace

int main(int argc, char** argv) {
  QString path;
  QString title;
  QString type = QStringLiteral("application/octet-stream");
  std::uint32_t chunk_size = 8u << 20;
  quire_examples::EmulatorOptions emulator;
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (emulator.Take(argc, argv, &i)) continue;
    if (std::strcmp(argv[i], "--title") == 0 && has_value) {
      title = QString::fromLocal8Bit(argv[++i]);
    } else if (std::strcmp(argv[i], "--type") == 0 && has_value) {
      type = QString::fromLocal8Bit(argv[++i]);
    } else if (std::strcmp(argv[i], "--chunk-size") == 0 && has_value) {
      bool ok = false;
      chunk_size = QString::fromLocal8Bit(argv[++i]).toUInt(&ok);
      // Each chunk after the first starts again at the last byte the service holds, so a chunk
      // must carry at least two bytes to move the upload on.
      if (!ok || chunk_size < 2) return Usage();
    } else if (argv[i][0] != '-' && path.isEmpty()) {
      path = QString::fromLocal8Bit(argv[i]);
    } else {
      return Usage();
    }
  }
  if (path.isEmpty()) return Usage();
  if (title.isEmpty()) title = QFileInfo(path).fileName();

  const QString token = quire_examples::TokenFromEnvironment("upload_file");
  if (token.isEmpty()) return 2;
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) {
    std::fprintf(stderr, "upload_file: cannot read %s\n", qPrintable(path));
    return 2;
  }
  // The protocol counts in unsigned 32-bit numbers: content must stay below 4 GiB.
  if (file.size() >= (qint64(1) << 32)) {
    std::fprintf(stderr, "upload_file: %s is 4 GiB or larger\n", qPrintable(path));
    return 2;
  }
  const QByteArray data = file.readAll();
  if (!emulator.Apply("upload_file")) return 2;

  // 1. Where do resumable creations start? The feed says, in its resumable-create-media link.
  DocsService docs;
  docs.SetOAuth2AuthToken(token);
  bool done = false;
  QUrl create_link;
  int status = 0;
  docs.GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    status = info.status;
    create_link = feed.resumable_create_media_link;  // a copy: the feed dies after this call
    done = true;
  });
  Wait(&done);
  if (status != 0 || create_link.isEmpty()) {
    std::fprintf(stderr, "upload_file: the document list failed with status %d\n", status);
    return 1;
  }

  // 2. The upload. ConnectionUtils sends only its own header lines, so the connection it uses
  //    carries the version line and the authorisation line as fixed lines, as a service would.
  //    It borrows the connection: both live on this stack until the upload's callback has run.
  ProgressConnection connection(new kestrel::quire::Connection, [](std::uint64_t held,
                                                                   std::uint64_t total) {
    std::printf("progress: %llu of %llu bytes (%d%%)\n", static_cast<unsigned long long>(held),
                static_cast<unsigned long long>(total), total == 0 ? 100 : int(held * 100 / total));
    std::fflush(stdout);
  });
  connection.Init(
      {QStringLiteral("Quire-Version: %1").arg(QLatin1String(kestrel::quire::kProtocolVersion)),
       QStringLiteral("Authorization: Bearer ") + token});
  ConnectionUtils uploader(chunk_size, &connection);

  // The metadata names the new document: an Atom entry with a title.
  const QString metadata =
      QStringLiteral(
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
          "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>%1</title></entry>")
          .arg(title.toHtmlEscaped());
  done = false;
  int exit_status = 1;
  uploader.ResumableUpload(
      create_link.toString(QUrl::FullyEncoded), metadata, type, data,
      [&](NetworkResponseInfo info, QByteArray body) {
        done = true;
        if (info.status != 0) {
          // 2: no usable answer, no upload address, or no readable position; else the HTTP
          // status of the request that failed (401: the token was refused).
          std::fprintf(stderr, "upload_file: the upload failed with status %d\n", info.status);
          return;
        }
        // The answer to the last chunk is the new document's entry. The body is valid only now.
        kestrel::XmlReader reader(body);
        DocsEntry entry;
        if (reader.GetErrorsOccurred() || !entry.ParseFrom(reader.GetRootNode())) {
          std::fprintf(stderr, "upload_file: uploaded, but the answer is not an entry\n");
          return;
        }
        std::printf("uploaded \"%s\" (%s, %lld bytes in %d chunks): %s\n",
                    entry.title.toUtf8().constData(), entry.content_type.toUtf8().constData(),
                    static_cast<long long>(data.size()), connection.chunks(),
                    entry.id.toUtf8().constData());
        exit_status = 0;
      });
  Wait(&done);
  return exit_status;
}
