/// @file
/// The document-list service: the feed, a document's content, create, replace and delete.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <functional>

#include "quire/connection/i_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/quire_export.h"
#include "quire/services/service.h"

namespace kestrel {
namespace quire {

/// Receives the parsed document list. The feed is deleted as soon as the callback returns: copy
/// what you keep.
using FeedCallback = std::function<void(NetworkResponseInfo, const DocsFeed&)>;
/// Receives the entry that the service returned for a created or replaced document. The entry is
/// deleted as soon as the callback returns: copy what you keep.
using EntryCallback = std::function<void(NetworkResponseInfo, const DocsEntry&)>;
/// Receives the outcome of a deletion.
using DeleteCallback = std::function<void(NetworkResponseInfo)>;

/// The document-list service: the feed, a document's content, create, replace and delete.
///
/// Every operation sends one request through the service's connection and returns the connection's
/// request id at once (usable with Cancel). Its callback is called exactly once, later, on the
/// thread that runs the network layer's completions (the host's main thread), never inside the
/// operation. Callbacks may issue further requests. An empty callback aborts the process when it
/// would be called. Bodies, header lists, feeds and entries handed to a callback are valid only
/// during the call: copy what you keep.
///
/// Every request carries the connection's fixed lines (the version line) first, then the request's
/// own lines: the authorisation line when an access token is set, and nothing else unless stated.
///
/// Statuses a callback can receive (see NetworkResponseInfo::status):
/// - 0: success (any 2xx answer);
/// - 1: the answer was a success but its body could not be read (GetFeed(),
///   CreateEntryWithContent() and ModifyEntryContent() only);
/// - 2: a network failure, a time-out or an HTTP status that is not passed through;
/// - 300, 302, 308, 400 to 416, 500 to 505: that HTTP status.
///
/// Ownership, lifetime and threading are those of Service.
class QUIRE_EXPORT DocsService : public Service {
 public:
  /// Creates a Connection of its own.
  DocsService();
  /// Takes ownership of `connection` (a new Connection of its own when it is null).
  explicit DocsService(IConnection* connection);
  /// Deletes the connection (see Service::~Service()).
  ~DocsService() override;

  /// GETs DocsFeedUrl exactly (no query, so only the first page the service sends) and parses the
  /// answer into a DocsFeed. `callback` receives:
  /// - 0: the parsed feed;
  /// - 1: the answer was a success but its body is not well-formed XML, has no root element or is
  ///   not a feed: an empty feed (never a half-parsed one);
  /// - 2, 300, 302, 308, 400 to 416, 500 to 505: the transport's failure status, unchanged: an
  ///   empty feed, body not read.
  virtual unsigned int GetFeed(FeedCallback callback);
  /// GETs `url` (normally a DocsEntry's content_src). The callback receives the transport's status
  /// (0, 2, 300, 302, 308, 400 to 416, 500 to 505; never 1) and the body exactly as they came,
  /// whatever the outcome (an error document on a failure, often empty); nothing is parsed. The
  /// body is a view valid only during the call: keep a deep copy, not the QByteArray itself.
  virtual unsigned int GetEntryContent(const QUrl& url, ResponseCallback callback);
  /// POSTs `content`, whole, in one request to `url` (normally a DocsFeed's post_link). The two
  /// texts are part of the interface but not used: nothing is made of them, so no title or media
  /// type is announced (use ConnectionUtils for that, and for large content). `content` is shared,
  /// not copied: a QByteArray made with QByteArray::fromRawData() must keep its bytes unchanged
  /// until the callback has run. `callback` receives:
  /// - 0: the entry that the service returned (201 and 200 alike);
  /// - 1: the answer was a success but its body is not well-formed XML, has no root element or is
  ///   not an entry: an empty entry;
  /// - 2, 300, 302, 308, 400 to 416, 500 to 505: the transport's failure status, unchanged: an
  ///   empty entry, body not read.
  virtual unsigned int CreateEntryWithContent(const QUrl& url, const QString& title,
                                              const QString& content_type,
                                              const QByteArray& content, EntryCallback callback);
  /// PUTs `content`, whole, in one request to `url` (normally a DocsEntry's edit_link),
  /// unconditionally (no If-Match line). The text is not used. Content, callback and statuses as
  /// for CreateEntryWithContent().
  virtual unsigned int ModifyEntryContent(const QUrl& url, const QString& content_type,
                                          const QByteArray& content, EntryCallback callback);
  /// DELETEs `url` (normally a DocsEntry's edit_link). A non-empty `etag` is sent as "If-Match: "
  /// followed by the tag exactly as given (quotes included, none added), ahead of the authorisation
  /// line; an empty one makes the deletion unconditional. The callback receives the transport's
  /// status unchanged (0, 2, 300, 302, 308, 400 to 416, 500 to 505; 412: the tag is no longer
  /// current); the body is dropped.
  virtual unsigned int DeleteEntry(const QUrl& url, const QString& etag, DeleteCallback callback);

  /// @name Completion handlers
  /// Public, but meant only to be bound by the operations above.
  ///@{

  /// Completion of GetFeed(): parses `body` when `response.status` is 0 and calls `callback`.
  void GetFeedDone(FeedCallback callback, NetworkResponseInfo response, QByteArray body);
  /// Completion of GetEntryContent(): passes the response and the body on unchanged.
  void GetEntryContentDone(ResponseCallback callback, NetworkResponseInfo response,
                           QByteArray body);
  /// Completion of CreateEntryWithContent() and ModifyEntryContent(): parses `body` when
  /// `response.status` is 0 and calls `callback`.
  void EntryModifyDone(EntryCallback callback, NetworkResponseInfo response, QByteArray body);
  /// Completion of DeleteEntry(): passes the response on and drops the body.
  void DeleteEntryDone(DeleteCallback callback, NetworkResponseInfo response, QByteArray body);
  ///@}
};

}  // namespace quire
}  // namespace kestrel
