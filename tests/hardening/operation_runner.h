// Issues one library operation through a LibraryClient and records what its callback received, so
// that a test can check the outcome after the main loop has delivered it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <cstddef>
#include <cstdint>

#include "tests/hardening/library_client.h"

namespace quire_test::hardening {

enum class Operation {
  kGetUserEmail,
  kGetFeed,
  kGetEntryContent,
  kCreateEntryWithContent,
  kModifyEntryContent,
  kDeleteEntry,
  kResumableUpload,
};

inline constexpr Operation kAllOperations[] = {
    Operation::kGetUserEmail,       Operation::kGetFeed,
    Operation::kGetEntryContent,    Operation::kCreateEntryWithContent,
    Operation::kModifyEntryContent, Operation::kDeleteEntry,
    Operation::kResumableUpload,
};

// What the operations work on: documents that exist on the server, and the bytes to send.
struct Targets {
  QUrl content_src;  // of a document whose content is `content`
  QByteArray content;
  QUrl modify_edit_link;
  QUrl delete_edit_link;
  QString delete_etag;
  QByteArray new_content;  // sent by create and modify
  QUrl upload_url;         // where a resumable upload of a new document starts
  QByteArray upload_data;
};

// What the callback received. Bodies can be large: only their size, a hash and their first bytes
// are kept.
struct Outcome {
  int calls = 0;
  bool issuing = false;  // the operation is being issued
  bool called_during_issue = false;
  unsigned int issued_id = 0;   // what the operation returned
  unsigned int request_id = 0;  // NetworkResponseInfo::request_id
  int status = -1;
  bool had_headers = false;  // NetworkResponseInfo::headers was not null
  QString email;
  std::size_t entries = 0;
  bool every_entry_has_id = true;
  QString entry_id;
  QUrl entry_edit_link;
  QUrl entry_content_src;
  QString entry_etag;
  long long body_size = 0;
  std::uint64_t body_hash = 0;
  QByteArray body_start;  // up to 256 bytes, deep-copied
};

class OperationRunner {
 public:
  static const char* Name(Operation operation);
  // Starts `operation` on `client`; its callback fills `*outcome`, which must outlive it.
  static void Start(Operation operation, LibraryClient* client, const Targets& targets,
                    Outcome* outcome);
  // Cancels the request `id` of `operation` through the service (or the upload's connection).
  static void Cancel(Operation operation, LibraryClient* client, unsigned int id);
  // FNV-1a over the bytes.
  static std::uint64_t Hash(const char* data, std::size_t size);
};

}  // namespace quire_test::hardening
