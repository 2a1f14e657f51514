// Lists the signed-in user's documents: one line per document with its title, media type, last
// update and marks (starred, in the trash).
//
//   QUIRE_TOKEN=... list_documents [--emulator ADDR:PORT --ca-file FILE]
//
// The bearer token comes from the environment variable QUIRE_TOKEN (a real host obtains it with
// its own OAuth 2.0 flow). --emulator sends the library's two host names to a local quire-server
// listening on ADDR:PORT, whose certificate --ca-file names (its data folder's tls/cert.pem).
//
// Exit status: 0 listed, 1 the request failed, 2 bad command line.
#include <QByteArray>
#include <QString>
#include <cstdio>

#include <kestrel/base/main_loop.h>
#include <quire/quire.h>

#include "../example_options.h"

namespace {

using kestrel::quire::DocsEntry;
using kestrel::quire::DocsFeed;
using kestrel::quire::DocsService;
using kestrel::quire::NetworkResponseInfo;

int Usage() {
  std::fprintf(stderr,
               "usage: QUIRE_TOKEN=... list_documents [--emulator ADDR:PORT --ca-file FILE]\n");
  return 2;
}

void PrintEntry(const DocsEntry& entry) {
  QString marks;
  if (entry.starred) marks += QStringLiteral(" starred");
  if (entry.removed) marks += QStringLiteral(" trashed");
  std::printf("%s\t%s\t%s%s\n", entry.title.toUtf8().constData(),
              entry.content_type.toUtf8().constData(), entry.updated.toUtf8().constData(),
              marks.toUtf8().constData());
}

}  // namespace

int main(int argc, char** argv) {
  quire_examples::EmulatorOptions emulator;
  for (int i = 1; i < argc; ++i) {
    if (!emulator.Take(argc, argv, &i)) return Usage();
  }
  const QString token = quire_examples::TokenFromEnvironment("list_documents");
  if (token.isEmpty() || !emulator.Apply("list_documents")) return 2;

  // The service creates its own connection and owns it. The token lives in memory only.
  DocsService docs;
  docs.SetOAuth2AuthToken(token);

  bool done = false;
  int exit_status = 1;
  docs.GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    // Runs later, on this thread, from MainLoop::RunUntil below. The feed dies when this returns.
    done = true;
    if (info.status != 0) {
      // 1: the answer was not a feed; 2: no usable HTTP answer (network, TLS, time-out); else the
      // HTTP status (401: the token was refused).
      std::fprintf(stderr, "list_documents: the document list failed with status %d\n",
                   info.status);
      return;
    }
    for (const DocsEntry* entry : feed.entries) PrintEntry(*entry);
    std::fprintf(stderr, "documents: %zu\n", feed.entries.size());
    exit_status = 0;
  });

  // The callback always comes: the network layer gives up on a stalled request after 60 seconds.
  // Waiting for it matters, because the service must outlive its requests.
  kestrel::MainLoop::Default()->RunUntil([&] { return done; }, 24 * 3600.0);
  return exit_status;
}
