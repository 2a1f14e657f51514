#include "tests/hardening/operation_runner.h"

#include "quire/services/endpoints.h"

namespace quire_test::hardening {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

void Record(const NetworkResponseInfo& info, Outcome* outcome) {
  ++outcome->calls;
  outcome->request_id = info.request_id;
  outcome->status = info.status;
  outcome->had_headers = info.headers != nullptr;
}

void RecordBody(const QByteArray& body, Outcome* outcome) {
  outcome->body_size = body.size();
  outcome->body_hash =
      OperationRunner::Hash(body.constData(), static_cast<std::size_t>(body.size()));
  outcome->body_start =
      QByteArray(body.constData(), static_cast<int>(qMin<qsizetype>(body.size(), 256)));
}

void RecordEntry(const DocsEntry& entry, Outcome* outcome) {
  outcome->entry_id = entry.id;
  outcome->entry_edit_link = entry.edit_link;
  outcome->entry_content_src = entry.content_src;
  outcome->entry_etag = entry.etag;
}

}  // namespace

const char* OperationRunner::Name(Operation operation) {
  // In the order of the enumeration.
  static const char* const kNames[] = {
      "GetUserEmail",       "GetFeed",     "GetEntryContent", "CreateEntryWithContent",
      "ModifyEntryContent", "DeleteEntry", "ResumableUpload"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) ==
                    static_cast<std::size_t>(Operation::kResumableUpload) + 1,
                "a name for every value");
  return kNames[static_cast<std::size_t>(operation)];
}

std::uint64_t OperationRunner::Hash(const char* data, std::size_t size) {
  std::uint64_t hash = 14695981039346656037ull;
  for (std::size_t i = 0; i < size; ++i) {
    hash ^= static_cast<unsigned char>(data[i]);
    hash *= 1099511628211ull;
  }
  return hash;
}

void OperationRunner::Cancel(Operation operation, LibraryClient* client, unsigned int id) {
  switch (operation) {
    case Operation::kGetUserEmail:
      client->user_info().Cancel(id);
      break;
    case Operation::kResumableUpload:
      client->upload_connection().Cancel(id);
      break;
    default:
      client->docs().Cancel(id);
      break;
  }
}

void OperationRunner::Start(Operation operation, LibraryClient* client, const Targets& targets,
                            Outcome* outcome) {
  // Set while the operation is being issued: a callback that sees it ran too early.
  outcome->issuing = true;
  auto entry_done = [outcome](NetworkResponseInfo info, const DocsEntry& entry) {
    outcome->called_during_issue |= outcome->issuing;
    Record(info, outcome);
    RecordEntry(entry, outcome);
  };
  auto bytes_done = [outcome](NetworkResponseInfo info, QByteArray body) {
    outcome->called_during_issue |= outcome->issuing;
    Record(info, outcome);
    RecordBody(body, outcome);
  };
  unsigned int id = 0;
  switch (operation) {
    case Operation::kGetUserEmail:
      id = client->user_info().GetUserEmail([outcome](NetworkResponseInfo info, QString email) {
        outcome->called_during_issue |= outcome->issuing;
        Record(info, outcome);
        outcome->email = email;
      });
      break;
    case Operation::kGetFeed:
      id = client->docs().GetFeed([outcome](NetworkResponseInfo info, const DocsFeed& feed) {
        outcome->called_during_issue |= outcome->issuing;
        Record(info, outcome);
        outcome->entries = feed.entries.size();
        for (std::size_t i = 0; i < feed.entries.size(); ++i) {
          if (feed.entries[i]->id.isEmpty()) outcome->every_entry_has_id = false;
        }
      });
      break;
    case Operation::kGetEntryContent:
      id = client->docs().GetEntryContent(targets.content_src, bytes_done);
      break;
    case Operation::kCreateEntryWithContent:
      id = client->docs().CreateEntryWithContent(
          QUrl(QString::fromLatin1(kestrel::quire::DocsFeedUrl)), QStringLiteral("created"),
          QStringLiteral("text/plain"), targets.new_content, entry_done);
      break;
    case Operation::kModifyEntryContent:
      id = client->docs().ModifyEntryContent(targets.modify_edit_link, QStringLiteral("text/plain"),
                                             targets.new_content, entry_done);
      break;
    case Operation::kDeleteEntry:
      id = client->docs().DeleteEntry(targets.delete_edit_link, targets.delete_etag,
                                      [outcome](NetworkResponseInfo info) {
                                        outcome->called_during_issue |= outcome->issuing;
                                        Record(info, outcome);
                                      });
      break;
    case Operation::kResumableUpload:
      id = client->uploads().ResumableUpload(
          targets.upload_url.toString(QUrl::FullyEncoded),
          QStringLiteral("<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>uploaded</title>"
                         "</entry>"),
          QStringLiteral("application/octet-stream"), targets.upload_data, bytes_done);
      break;
  }
  outcome->issued_id = id;
  outcome->issuing = false;
}

}  // namespace quire_test::hardening
