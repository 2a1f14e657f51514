#include "tests/hardening/fault_matrix_test.h"

#include <QUrl>
#include <fstream>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "quire/model/link_relations.h"
#include "quire/services/endpoints.h"

namespace quire_test::hardening {
namespace {

using kestrel::MainLoop;

// The bytes of a document whose content is `size` bytes of a pattern that depends on `seed`.
QByteArray Pattern(int size, int seed) {
  QByteArray bytes(size, Qt::Uninitialized);
  for (int i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
  return bytes;
}

std::uint64_t HashOf(const QByteArray& bytes) {
  return OperationRunner::Hash(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

// Not well-formed: the entry and its title are never closed. Holds no "email=".
constexpr char kMalformedXml[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<feed xmlns=\"http://www.w3.org/2005/Atom\"><entry><title>never closed</feed>\n";

// Ten levels of ten references each: 10^9 copies of "lol" if a parser expanded them.
std::string EntityBomb() {
  std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE feed [\n  <!ENTITY lol0 \"lol\">\n";
  for (int level = 1; level <= 9; ++level) {
    text += "  <!ENTITY lol" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i) text += "&lol" + std::to_string(level - 1) + ";";
    text += "\">\n";
  }
  text += "]>\n<feed xmlns=\"http://www.w3.org/2005/Atom\"><title>&lol9;</title></feed>\n";
  return text;
}

}  // namespace

void FaultMatrixTest::SetUp() {
  MainLoop::Default()->RunUntilIdle();
  live_at_start_ = kestrel::MemoryManager::Default()->live_allocations();
  ASSERT_FALSE(files_.path().empty());
}

void FaultMatrixTest::TearDown() {
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_)
      << "the memory manager's live allocations did not come back to where they started";
}

const char* FaultMatrixTest::Name(Fault fault) {
  // In the order of the enumeration.
  static const char* const kNames[] = {"no fault",
                                       "connection closed mid-request (header)",
                                       "connection closed mid-request (body)",
                                       "connection closed mid-response (header)",
                                       "connection closed mid-response (body)",
                                       "503",
                                       "308 without Range",
                                       "Range beyond the data",
                                       "malformed XML",
                                       "entity bomb",
                                       "200 MB feed",
                                       "delay past the time-out"};
  static_assert(
      sizeof(kNames) / sizeof(kNames[0]) == static_cast<std::size_t>(Fault::kDelayPastTimeout) + 1,
      "a name for every value");
  return kNames[static_cast<std::size_t>(fault)];
}

std::string FaultMatrixTest::WriteFile(const std::string& name, const std::string& bytes) {
  const std::string path = files_.path() + "/" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
  fault_body_size_ = static_cast<long long>(bytes.size());
  fault_body_hash_ = OperationRunner::Hash(bytes.data(), bytes.size());
  return path;
}

std::size_t FaultMatrixTest::WriteHugeFeed(const std::string& path, long long bytes) {
  namespace q = kestrel::quire;
  const std::string base = "https://docs.quire.example/feeds/default/private/full";
  const std::string schema = q::SchemaNamespace;
  std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<feed "
      "xmlns=\"http://www.w3.org/2005/Atom\" xmlns:qr=\"" +
      schema + "/g/2005\" xmlns:docs=\"" + schema +
      "/docs/2007\" xmlns:openSearch=\"http://a9.com/-/spec/opensearch/1.1/\" "
      "qr:etag=\"W/&quot;huge&quot;\"><id>" +
      base + "</id><updated>2024-05-01T12:00:00.000Z</updated><title>Documents of " + kAccount +
      "</title><link rel=\"" + q::kFeedRel + "\" type=\"application/atom+xml\" href=\"" + base +
      "\"/><link rel=\"" + q::kPostRel + "\" type=\"application/atom+xml\" href=\"" + base + "\"/>";
  const std::string tail = "</feed>\n";
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::uint64_t hash = 14695981039346656037ull;
  long long written = 0;
  auto put = [&](const std::string& text) {
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    for (char c : text) {
      hash ^= static_cast<unsigned char>(c);
      hash *= 1099511628211ull;
    }
    written += static_cast<long long>(text.size());
  };
  put(head);
  std::size_t entries = 0;
  std::string entry;
  while (written + static_cast<long long>(tail.size()) < bytes) {
    const std::string id = "doc" + std::to_string(entries);
    const std::string edit = base + "/" + id;
    entry.clear();
    entry += "<entry qr:etag=\"&quot;tag" + std::to_string(entries) + "&quot;\"><id>" + edit +
             "</id><updated>2024-05-01T12:00:00.000Z</updated><title>Document " +
             std::to_string(entries) + "</title><content type=\"text/plain\" src=\"" + edit +
             "/content\"/><link rel=\"edit\" href=\"" + edit + "\"/><link rel=\"" +
             q::kResumableEditMediaRel +
             "\" href=\"https://docs.quire.example/upload/feeds/default/private/full/" + id +
             "\"/><qr:feedLink rel=\"" + q::kAclFeedRel + "\" href=\"" + edit +
             "/acl\"/><qr:feedLink rel=\"" + q::kRevisionsFeedRel + "\" href=\"" + edit +
             "/revisions\"/></entry>";
    put(entry);
    ++entries;
  }
  put(tail);
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
  fault_body_size_ = written;
  fault_body_hash_ = hash;
  return entries;
}

std::vector<std::string> FaultMatrixTest::ArgumentsFor(Fault fault) {
  switch (fault) {
    case Fault::kNone:
      return {};
    case Fault::kCloseInRequestHead:
      return {"--fault-close-request-after", "64"};
    case Fault::kCloseInRequestBody:
      return {"--fault-close-request-after", "2000"};
    case Fault::kCloseInResponseHead:
      return {"--fault-close-response-after", "64"};
    case Fault::kCloseInResponseBody:
      return {"--fault-close-response-after", "600"};
    case Fault::kServiceUnavailable:
      return {"--fault-fail-every", "1"};
    case Fault::k308WithoutRange:
      return {"--fault-308-without-range"};
    case Fault::kRangeBeyondData:
      return {"--fault-range-beyond", "1073741824"};
    case Fault::kMalformedXml:
      return {"--fault-body", WriteFile("malformed.xml", kMalformedXml)};
    case Fault::kEntityBomb:
      return {"--fault-body", WriteFile("bomb.xml", EntityBomb())};
    case Fault::kHugeFeed: {
      const std::string path = files_.path() + "/huge-feed.xml";
      huge_feed_entries_ = WriteHugeFeed(path, kHugeFeedBytes);
      return {"--fault-body", path};
    }
    case Fault::kDelayPastTimeout:
      return {"--fault-delay-ms", "90000"};
  }
  return {};
}

void FaultMatrixTest::Seed() {
  ASSERT_TRUE(emulator_.Start({}));
  LibraryClient::Options options;
  options.port = emulator_.port();
  options.trusted_files = {emulator_.certificate_file()};
  auto client = std::make_unique<LibraryClient>(options);
  ASSERT_TRUE(client->configured());

  targets_.content = Pattern(kContentBytes, 1);
  targets_.new_content = Pattern(kContentBytes, 2);
  targets_.upload_data = Pattern(kUploadBytes, 3);
  targets_.upload_url =
      QUrl(QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"));
  const QUrl feed(QString::fromLatin1(kestrel::quire::DocsFeedUrl));
  Outcome made[3];
  for (Outcome& outcome : made) {
    client->docs().CreateEntryWithContent(feed, QString(), QString(), targets_.content,
                                          [&outcome](kestrel::quire::NetworkResponseInfo info,
                                                     const kestrel::quire::DocsEntry& entry) {
                                            ++outcome.calls;
                                            outcome.status = info.status;
                                            outcome.entry_edit_link = entry.edit_link;
                                            outcome.entry_content_src = entry.content_src;
                                            outcome.entry_etag = entry.etag;
                                          });
  }
  ASSERT_TRUE(MainLoop::Default()->RunUntil(
      [&made] { return made[0].calls > 0 && made[1].calls > 0 && made[2].calls > 0; }, 60.0));
  for (const Outcome& outcome : made) {
    ASSERT_EQ(outcome.status, 0);
    ASSERT_FALSE(outcome.entry_edit_link.isEmpty());
  }
  targets_.content_src = made[0].entry_content_src;
  targets_.modify_edit_link = made[1].entry_edit_link;
  targets_.delete_edit_link = made[2].entry_edit_link;
  targets_.delete_etag = made[2].entry_etag;
  ASSERT_TRUE(client->WaitForIdle(10.0));
  client.reset();
  ASSERT_EQ(emulator_.Stop(), 0);
}

std::vector<Outcome> FaultMatrixTest::Run(const std::vector<Operation>& operations,
                                          const std::vector<std::string>& args, bool side_by_side,
                                          double seconds, const kestrel::quire::RetryPolicy* policy,
                                          std::vector<std::uint64_t>* retries,
                                          double cancel_after) {
  std::vector<Outcome> outcomes(operations.size());
  MainLoop::Default()->RunUntilIdle();
  const long live_before = kestrel::MemoryManager::Default()->live_allocations();
  Seed();
  if (HasFatalFailure()) return outcomes;
  if (!emulator_.Start(args)) {
    ADD_FAILURE() << "the emulator did not start with its faults";
    return outcomes;
  }
  LibraryClient::Options options;
  options.port = emulator_.port();
  options.trusted_files = {emulator_.certificate_file()};
  options.chunk_size = kChunkBytes;
  options.retry_policy = policy;
  std::vector<std::unique_ptr<LibraryClient>> clients;
  for (std::size_t i = 0; i < operations.size(); ++i) {
    clients.push_back(std::make_unique<LibraryClient>(options));
    EXPECT_TRUE(clients.back()->configured());
  }
  auto called = [&outcomes](std::size_t i) { return outcomes[i].calls > 0; };
  // Delayed cancels that find the clients gone do nothing.
  auto clients_alive = std::make_shared<bool>(true);
  auto cancel = [&](std::size_t i) {
    if (cancel_after < 0) return;
    LibraryClient* client = clients[i].get();
    const Operation operation = operations[i];
    const unsigned int id = outcomes[i].issued_id;
    if (cancel_after == 0) {
      OperationRunner::Cancel(operation, client, id);
    } else {
      MainLoop::Default()->PostDelayed(cancel_after, [client, operation, id, clients_alive] {
        if (*clients_alive) OperationRunner::Cancel(operation, client, id);
      });
    }
  };
  if (side_by_side) {
    for (std::size_t i = 0; i < operations.size(); ++i) {
      OperationRunner::Start(operations[i], clients[i].get(), targets_, &outcomes[i]);
      cancel(i);
    }
    EXPECT_TRUE(MainLoop::Default()->RunUntil(
        [&] {
          for (std::size_t i = 0; i < outcomes.size(); ++i) {
            if (!called(i)) return false;
          }
          return true;
        },
        seconds))
        << "not every operation called back within " << seconds << " s: " << [&] {
             std::string missing;
             for (std::size_t i = 0; i < outcomes.size(); ++i) {
               if (!called(i)) missing += std::string(" ") + OperationRunner::Name(operations[i]);
             }
             return missing;
           }();
  } else {
    for (std::size_t i = 0; i < operations.size(); ++i) {
      OperationRunner::Start(operations[i], clients[i].get(), targets_, &outcomes[i]);
      cancel(i);
      EXPECT_TRUE(MainLoop::Default()->RunUntil([&] { return called(i); }, seconds))
          << OperationRunner::Name(operations[i]) << " did not call back within " << seconds
          << " s";
    }
  }
  // Whatever else the transports still have goes to the main loop; a second callback would show.
  for (const auto& client : clients) EXPECT_TRUE(client->WaitForIdle(seconds));
  if (retries != nullptr) {
    retries->clear();
    for (const auto& client : clients) retries->push_back(client->retries());
  }
  *clients_alive = false;
  clients.clear();
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(emulator_.Stop(), 0) << "the emulator did not stop cleanly";

  // Every cell gives back all it allocated. The operations of a run share the memory manager, so a
  // run of several that leaks runs each of them again on its own to name the cells that leak.
  const long leaked = kestrel::MemoryManager::Default()->live_allocations() - live_before;
  if (leaked != 0) {
    std::string emulator_args;
    for (const std::string& arg : args) emulator_args += " " + arg;
    if (operations.size() == 1) {
      ADD_FAILURE() << OperationRunner::Name(operations[0]) << " against the emulator with"
                    << (args.empty() ? " no fault" : emulator_args) << ": " << leaked
                    << " allocations of the memory manager still alive";
    } else {
      ADD_FAILURE() << leaked << " allocations of the memory manager still alive after "
                    << operations.size() << " operations; each runs again on its own:";
      for (Operation operation : operations) {
        Run({operation}, args, side_by_side, seconds, policy, nullptr, cancel_after);
      }
    }
  }
  return outcomes;
}

void FaultMatrixTest::WithEmulator(const std::vector<std::string>& args,
                                   const std::function<void(const LibraryClient::Options&)>& body) {
  Seed();
  if (HasFatalFailure()) return;
  ASSERT_TRUE(emulator_.Start(args)) << "the emulator did not start with its faults";
  LibraryClient::Options options;
  options.port = emulator_.port();
  options.trusted_files = {emulator_.certificate_file()};
  options.chunk_size = kChunkBytes;
  body(options);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(emulator_.Stop(), 0) << "the emulator did not stop cleanly";
}

void FaultMatrixTest::RunColumn(Fault fault, bool side_by_side, double seconds) {
  std::vector<Operation> operations(std::begin(kAllOperations), std::end(kAllOperations));
  const std::vector<std::string> args = ArgumentsFor(fault);
  const std::vector<Outcome> outcomes = Run(operations, args, side_by_side, seconds);
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(std::string(Name(fault)) + " x " + OperationRunner::Name(operations[i]));
    CheckCell(fault, operations[i], outcomes[i]);
  }
}

void FaultMatrixTest::CheckCallback(Operation operation, const Outcome& outcome) {
  EXPECT_EQ(outcome.calls, 1) << "callbacks";
  EXPECT_FALSE(outcome.called_during_issue) << "the callback ran inside the call that issued it";
  EXPECT_NE(outcome.issued_id, 0u);
  if (operation != Operation::kResumableUpload) {
    EXPECT_EQ(outcome.request_id, outcome.issued_id);
    EXPECT_FALSE(outcome.had_headers) << "no response lines were asked for";
  }
}

void FaultMatrixTest::CheckCell(Fault fault, Operation operation, const Outcome& outcome) {
  CheckCallback(operation, outcome);

  // A failure reported by the transport (`status`) or the server, as each operation documents it.
  auto failed = [&](int status) {
    EXPECT_EQ(outcome.status, status);
    switch (operation) {
      case Operation::kGetUserEmail:
        EXPECT_TRUE(outcome.email.isEmpty());
        break;
      case Operation::kGetFeed:
        EXPECT_EQ(outcome.entries, 0u);
        break;
      case Operation::kCreateEntryWithContent:
      case Operation::kModifyEntryContent:
        EXPECT_TRUE(outcome.entry_id.isEmpty());
        EXPECT_TRUE(outcome.entry_edit_link.isEmpty());
        break;
      case Operation::kResumableUpload:
        EXPECT_EQ(outcome.body_size, 0) << "a failed upload passes no body on";
        EXPECT_TRUE(outcome.had_headers) << "the failing answer is passed on unchanged";
        break;
      case Operation::kGetEntryContent:
      case Operation::kDeleteEntry:
        break;
    }
  };
  // The answer arrived whole, but its body was `fault_body_*` instead of the service's own.
  auto answered_with_fault_body = [&](bool xml_parses_as_feed) {
    switch (operation) {
      case Operation::kGetUserEmail:
        EXPECT_EQ(outcome.status, 1) << "no \"email=\" in the body";
        EXPECT_TRUE(outcome.email.isEmpty());
        break;
      case Operation::kGetFeed:
        if (xml_parses_as_feed) {
          EXPECT_EQ(outcome.status, 0);
          EXPECT_EQ(outcome.entries, huge_feed_entries_);
          EXPECT_TRUE(outcome.every_entry_has_id);
        } else {
          EXPECT_EQ(outcome.status, 1);
          EXPECT_EQ(outcome.entries, 0u);
        }
        break;
      case Operation::kCreateEntryWithContent:
      case Operation::kModifyEntryContent:
        // Never an entry: not well-formed, refused, or a feed where an entry belongs.
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(outcome.entry_id.isEmpty());
        break;
      case Operation::kGetEntryContent:
      case Operation::kResumableUpload:
        // Neither parses its answer: the bytes arrive as they were sent.
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.body_size, fault_body_size_);
        EXPECT_EQ(outcome.body_hash, fault_body_hash_);
        if (operation == Operation::kResumableUpload) {
          EXPECT_NE(outcome.request_id, outcome.issued_id) << "the last PUT's answer";
          EXPECT_TRUE(outcome.had_headers);
        }
        break;
      case Operation::kDeleteEntry:
        EXPECT_EQ(outcome.status, 0);
        break;
    }
  };
  auto succeeded = [&] {
    EXPECT_EQ(outcome.status, 0);
    switch (operation) {
      case Operation::kGetUserEmail:
        EXPECT_EQ(outcome.email, QString::fromLatin1(kAccount));
        break;
      case Operation::kGetFeed:
        // Three documents were made; the create, delete and upload of the column may have run
        // before the feed was read.
        EXPECT_GE(outcome.entries, 2u);
        EXPECT_LE(outcome.entries, 5u);
        EXPECT_TRUE(outcome.every_entry_has_id);
        break;
      case Operation::kGetEntryContent:
        EXPECT_EQ(outcome.body_size, targets_.content.size());
        EXPECT_EQ(outcome.body_hash, HashOf(targets_.content));
        break;
      case Operation::kCreateEntryWithContent:
        EXPECT_FALSE(outcome.entry_id.isEmpty());
        EXPECT_FALSE(outcome.entry_content_src.isEmpty());
        break;
      case Operation::kModifyEntryContent:
        EXPECT_FALSE(outcome.entry_id.isEmpty());
        EXPECT_EQ(outcome.entry_edit_link, targets_.modify_edit_link);
        break;
      case Operation::kDeleteEntry:
        break;
      case Operation::kResumableUpload:
        EXPECT_TRUE(outcome.body_start.contains("<entry")) << outcome.body_start.constData();
        EXPECT_NE(outcome.request_id, outcome.issued_id) << "the last PUT's answer";
        EXPECT_TRUE(outcome.had_headers);
        break;
    }
  };
  // The upload failed after its POST: `made_up` failures (status 2) carry no header lines.
  auto upload_failed_at_put = [&](int status, bool made_up) {
    EXPECT_EQ(outcome.status, status);
    EXPECT_NE(outcome.request_id, outcome.issued_id) << "a PUT's id, not the POST's";
    EXPECT_EQ(outcome.had_headers, !made_up);
    EXPECT_EQ(outcome.body_size, 0);
  };

  const bool upload = operation == Operation::kResumableUpload;
  switch (fault) {
    case Fault::kNone:
      succeeded();
      break;
    case Fault::kCloseInRequestHead:
    case Fault::kCloseInResponseHead:
    case Fault::kDelayPastTimeout:
      failed(2);
      if (upload) {
        EXPECT_EQ(outcome.request_id, outcome.issued_id) << "the POST failed";
      }
      break;
    case Fault::kServiceUnavailable:
      failed(503);
      if (upload) {
        EXPECT_EQ(outcome.request_id, outcome.issued_id) << "the POST failed";
      }
      if (operation == Operation::kGetEntryContent) {
        EXPECT_TRUE(outcome.body_start.contains("503")) << "the error document is passed on";
      }
      break;
    case Fault::kCloseInRequestBody:
      // Requests without a body are shorter than the cut and go through.
      if (operation == Operation::kCreateEntryWithContent ||
          operation == Operation::kModifyEntryContent) {
        failed(2);
      } else if (upload) {
        upload_failed_at_put(2, false);
      } else {
        succeeded();
      }
      break;
    case Fault::kCloseInResponseBody:
      // The e-mail answer and the deletion's empty answer are shorter than the cut.
      if (operation == Operation::kGetUserEmail || operation == Operation::kDeleteEntry) {
        succeeded();
      } else if (upload) {
        upload_failed_at_put(2, false);
      } else {
        failed(2);
        if (operation == Operation::kGetEntryContent) {
          EXPECT_LT(outcome.body_size, targets_.content.size()) << "only what arrived";
        }
      }
      break;
    case Fault::k308WithoutRange:
    case Fault::kRangeBeyondData:
      if (upload) {
        upload_failed_at_put(2, true);
      } else {
        succeeded();
      }
      break;
    case Fault::kMalformedXml:
    case Fault::kEntityBomb:
      answered_with_fault_body(false);
      break;
    case Fault::kHugeFeed:
      answered_with_fault_body(true);
      break;
  }
}

}  // namespace quire_test::hardening
