// The documents of the account: metadata and entity tags in the database, content in immutable
// files of the content folder. Every change is one database transaction; content is written to a
// file and made durable before the transaction that points at it commits, so a document that was
// reported changed is never lost or torn, even when the process is killed at any moment. Content
// files that no document points at (left by a crash) are removed at start-up. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/quire-server/document_record.h"
#include "tools/quire-server/file_sink.h"
#include "tools/quire-server/unique_fd.h"

namespace quire_server {

class Database;
class DataFolder;
class DbTransaction;

class DocumentStore {
 public:
  enum class Outcome { kOk, kNotFound, kPreconditionFailed };

  // A durable file that becomes a document's content: either moved into the content folder, or
  // (with `link`) hard-linked there so that the original stays where it is.
  struct ContentSource {
    std::string path;
    std::uint64_t size = 0;
    bool link = false;
  };

  struct Listing {
    std::vector<DocumentRecord> documents;
    // Quoted tag that changes whenever any document changes.
    std::string etag;
    std::int64_t updated_ms = 0;
  };

  // Runs inside the transaction of a change, holding the database lock; throwing undoes the
  // change.
  using InTransaction = std::function<void()>;

  DocumentStore(Database& db, const DataFolder& folder);

  // Removes temporary files and content files that no document refers to. Called once before
  // serving.
  void Recover();

  Listing List();
  std::optional<DocumentRecord> Find(const std::string& id);
  // Opens the document's content. The descriptor stays valid for reading even if the document is
  // replaced or deleted meanwhile. Returns an invalid descriptor for an unknown document.
  UniqueFd OpenContent(const std::string& id, DocumentRecord* record);

  // A fresh file in the temporary folder for new content.
  FileSink NewContentFile();

  // Creates a document. `source` must be durable already.
  DocumentRecord Create(const ContentSource& source, const std::string& title,
                        const std::string& content_type, const InTransaction& also = {});
  // Replaces a document's content; a non-empty `content_type` or a given `title` replace those
  // too. With `if_match`, the document's tag must match it (see EtagMatches).
  Outcome Replace(const std::string& id, const ContentSource& source,
                  const std::string& content_type, const std::optional<std::string>& title,
                  const std::optional<std::string>& if_match, DocumentRecord* record,
                  const InTransaction& also = {});
  Outcome Delete(const std::string& id, const std::optional<std::string>& if_match);
  // Stars/unstars, trashes/restores.
  Outcome SetFlags(const std::string& id, std::optional<bool> starred, std::optional<bool> removed,
                   DocumentRecord* record);

  // Whether an If-Match value (one tag, a comma-separated list of tags, or "*") matches `etag`.
  // Tags are compared exactly (strong comparison).
  static bool EtagMatches(const std::string& if_match, const std::string& etag);

 private:
  std::string Publish(const ContentSource& source);
  void RemoveBlob(const std::string& blob);
  void BumpFeed(std::int64_t now_ms);
  // Gives `record` the content of `source` (published as `blob`), a new entity tag and the time,
  // writes it with `sql` (whose parameters ?1 to ?7 are the id, title, media type, size, blob,
  // entity tag and time), moves the feed on, runs `also` and commits `tx`.
  void CommitContent(DbTransaction* tx, const char* sql, const ContentSource& source,
                     const std::string& blob, const InTransaction& also, DocumentRecord* record);
  static std::string NewEtag();

  Database& db_;
  const DataFolder& folder_;
};

}  // namespace quire_server
