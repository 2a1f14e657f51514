#include "tools/quire/client.h"

#include "kestrel/base/main_loop.h"
#include "quire/connection/retrying_connection.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/services/docs_service.h"
#include "quire/services/user_info_service.h"
#include "tools/quire/retry_tally.h"

namespace quire_cli {

using kestrel::quire::DocsEntry;
using kestrel::quire::DocsFeed;
using kestrel::quire::NetworkResponseInfo;

namespace {

// The longest a single operation may wait on the main loop: a day. Transfers that move no bytes
// fail far earlier, through the transport's own time-out.
constexpr double kWaitBoundSeconds = 24 * 3600;

}  // namespace

Client::Client(const QString& token, const FailureClassifier& classifier, RetryTally* retries)
    : classifier_(classifier),
      docs_(retries != nullptr ? new kestrel::quire::DocsService(retries->Wrap(nullptr))
                               : new kestrel::quire::DocsService()),
      user_info_(retries != nullptr ? new kestrel::quire::UserInfoService(retries->Wrap(nullptr))
                                    : new kestrel::quire::UserInfoService()) {
  docs_->SetOAuth2AuthToken(token);
  user_info_->SetOAuth2AuthToken(token);
}

Client::~Client() {
  // Every operation waits for its callback, so nothing is in flight here; let the network layer
  // finish releasing what it holds before the services go.
  kestrel::MainLoop::Default()->RunUntilIdle();
}

void Client::Wait(const std::function<bool()>& done) {
  if (!kestrel::MainLoop::Default()->RunUntil(done, kWaitBoundSeconds)) {
    throw CliFailure(ExitCode::kNetwork,
                     "the network layer never answered; try again, or allow less with --timeout");
  }
}

std::string Client::Quoted(const QString& title) { return "\"" + title.toStdString() + "\""; }

QString Client::UserEmail() {
  bool done = false;
  int status = 0;
  QString email;
  user_info_->GetUserEmail([&](NetworkResponseInfo info, QString value) {
    status = info.status;
    email = value;
    done = true;
  });
  Wait([&] { return done; });
  if (status != 0) throw classifier_.Classify(status, "asking who is signed in");
  return email.trimmed();
}

FeedSnapshot Client::List() {
  bool done = false;
  int status = 0;
  FeedSnapshot snapshot;
  docs_->GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    status = info.status;
    done = true;
    if (status != 0) return;
    snapshot.post_link = feed.post_link;
    snapshot.resumable_create_media_link = feed.resumable_create_media_link;
    snapshot.etag = feed.etag;
    snapshot.documents.reserve(feed.entries.size());
    for (std::size_t i = 0; i < feed.entries.size(); ++i) {
      snapshot.documents.push_back(DocRecord::FromEntry(*feed.entries[i]));
    }
  });
  Wait([&] { return done; });
  if (status != 0) throw classifier_.Classify(status, "listing the documents");
  return snapshot;
}

void Client::Download(const DocRecord& doc, const std::function<void(const QByteArray&)>& sink) {
  if (doc.content_src.isEmpty()) {
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the listing gives no content address for " + Quoted(doc.title) +
                         "; run quire ls --json to see what the service sent");
  }
  bool done = false;
  int status = 0;
  docs_->GetEntryContent(doc.content_src, [&](NetworkResponseInfo info, QByteArray body) {
    status = info.status;
    done = true;
    if (status == 0) sink(body);
  });
  Wait([&] { return done; });
  if (status != 0) {
    throw classifier_.Classify(status, "downloading " + Quoted(doc.title));
  }
}

DocRecord Client::Create(const QUrl& post_link, const QByteArray& content) {
  if (post_link.isEmpty()) {
    throw CliFailure(ExitCode::kUnreadableAnswer,
                     "the document list gives no address to create documents at; check that "
                     "--server names the document service");
  }
  bool done = false;
  int status = 0;
  DocRecord created;
  // The library sends neither the title nor the type with this request: the service names the
  // document itself.
  docs_->CreateEntryWithContent(post_link, QString(), QString(), content,
                                [&](NetworkResponseInfo info, const DocsEntry& entry) {
                                  status = info.status;
                                  done = true;
                                  if (status == 0) created = DocRecord::FromEntry(entry);
                                });
  Wait([&] { return done; });
  if (status != 0) throw classifier_.Classify(status, "creating the document");
  return created;
}

DocRecord Client::Replace(const DocRecord& doc, const QByteArray& content) {
  bool done = false;
  int status = 0;
  DocRecord replaced;
  docs_->ModifyEntryContent(doc.edit_link, QString(), content,
                            [&](NetworkResponseInfo info, const DocsEntry& entry) {
                              status = info.status;
                              done = true;
                              if (status == 0) replaced = DocRecord::FromEntry(entry);
                            });
  Wait([&] { return done; });
  if (status != 0) {
    throw classifier_.Classify(status, "replacing the content of " + Quoted(doc.title));
  }
  return replaced;
}

void Client::Delete(const DocRecord& doc, const QString& etag) {
  bool done = false;
  int status = 0;
  docs_->DeleteEntry(doc.edit_link, etag, [&](NetworkResponseInfo info) {
    status = info.status;
    done = true;
  });
  Wait([&] { return done; });
  if (status == 412) {
    throw CliFailure(ExitCode::kEntityTagChanged,
                     "the document " + Quoted(doc.title) +
                         " changed since it was listed (HTTP 412, its entity tag is no longer " +
                         etag.toStdString() +
                         "), so it was not deleted; run quire ls to see it as it is now and try "
                         "again, or delete whatever it holds with rm --force");
  }
  if (status != 0) throw classifier_.Classify(status, "deleting " + Quoted(doc.title));
}

}  // namespace quire_cli
