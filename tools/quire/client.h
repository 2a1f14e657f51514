// The library operations that the commands use, each run to completion on the main loop: the
// services are asked, the loop runs until their callback has come, and a failure becomes a
// CliFailure thrown here (never from inside a callback, which runs inside the library).
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>
#include <string>

#include "tools/quire/doc_record.h"
#include "tools/quire/failure_classifier.h"
#include "tools/quire/feed_snapshot.h"

namespace kestrel {
namespace quire {
class DocsService;
class UserInfoService;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

class RetryTally;

class Client {
 public:
  // The services are created at once; they send through the transport installed as the network
  // layer's default. `token` may be empty for UserEmail, which sends none. With `retries`
  // (borrowed, may be null) every request follows its policy and every retry is counted there;
  // without, each request is sent once.
  Client(const QString& token, const FailureClassifier& classifier, RetryTally* retries = nullptr);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // The signed-in user's e-mail address.
  QString UserEmail();
  // The document list.
  FeedSnapshot List();
  // The content of `doc`, handed to `sink` while it is valid (the library's buffer; no copy).
  // `sink` runs inside the library's callback and must not throw.
  void Download(const DocRecord& doc, const std::function<void(const QByteArray&)>& sink);
  // A new document with `content`, created by a POST to `post_link`.
  DocRecord Create(const QUrl& post_link, const QByteArray& content);
  // `doc` with its content replaced by `content`.
  DocRecord Replace(const DocRecord& doc, const QByteArray& content);
  // Deletes `doc` under the entity tag `etag` (empty: unconditionally). HTTP 412 becomes the
  // entity-tag-changed failure, saying that the document changed since it was listed.
  void Delete(const DocRecord& doc, const QString& etag);

  // The document service, whose token authorises the requests (for the streaming download).
  const kestrel::quire::DocsService* docs() const { return docs_.get(); }

  // Runs the main loop until `done` holds. The transport bounds every request in time; this bound
  // only guards against a transport that never answers.
  static void Wait(const std::function<bool()>& done);

 private:
  static std::string Quoted(const QString& title);

  const FailureClassifier& classifier_;
  std::unique_ptr<kestrel::quire::DocsService> docs_;
  std::unique_ptr<kestrel::quire::UserInfoService> user_info_;
};

}  // namespace quire_cli
