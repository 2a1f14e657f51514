// The fault matrix: every library operation against one fault of the emulator at a time, through
// the real CurlTransport over TLS on 127.0.0.1. A column runs like this:
//   1. the emulator starts without faults on a fresh data folder, and the library creates the
//      documents that the operations work on (one to download, one to replace, one to delete);
//   2. the emulator is started again on the same folder with the fault;
//   3. each operation runs on a client of its own (its own transport), all side by side or one
//      after the other;
//   4. every operation must have ended in exactly one callback, never during the call that issued
//      it, with the status (and result) the library documents for that answer, and once every
//      client is gone the memory manager's live allocations are back at their start value (when
//      they are not, each operation runs again alone, so that the failure names the leaking cell).
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/hardening/fault_emulator.h"
#include "tests/hardening/operation_runner.h"
#include "tests/support/temp_dir.h"

namespace quire_test::hardening {

enum class Fault {
  kNone,
  kCloseInRequestHead,   // the emulator closes the connection 64 bytes into every request
  kCloseInRequestBody,   // ... 2000 bytes into every request: inside bodies of 64 KiB
  kCloseInResponseHead,  // ... 64 bytes into every answer
  kCloseInResponseBody,  // ... 600 bytes into every answer: inside the feed, entries, content
  kServiceUnavailable,   // 503 to every request
  k308WithoutRange,
  kRangeBeyondData,   // 308 answers report 1 GiB more than the session holds
  kMalformedXml,      // every 2xx answer carries a document that is not well-formed
  kEntityBomb,        // ... a document type with nested entities (a billion laughs)
  kHugeFeed,          // ... a well-formed feed of 200 MB
  kDelayPastTimeout,  // every answer comes 90 s late, past the connection's stall time-out
};

class FaultMatrixTest : public ::testing::Test {
 protected:
  // Bytes of the documents the operations send and fetch.
  static constexpr int kContentBytes = 64 * 1024;
  static constexpr int kUploadBytes = 256 * 1024;
  static constexpr std::uint32_t kChunkBytes = 64 * 1024;
  static constexpr long long kHugeFeedBytes = 200ll * 1000 * 1000;

  void SetUp() override;
  void TearDown() override;

  // Runs every operation against `fault` and checks each cell. `side_by_side` issues them all at
  // once; otherwise one waits for the other. `seconds` bounds the whole column.
  void RunColumn(Fault fault, bool side_by_side, double seconds);
  // Runs the operations given against the emulator started with `args` (after seeding), returning
  // their outcomes in the same order. Fails when the run leaves allocations of the memory manager
  // alive, naming each operation that leaks on its own.
  // With `policy`, every client's connections retry under it (`retries`, when given, receives the
  // retries of each operation's client); `cancel_after` >= 0 cancels each operation that long
  // after it was issued (0: at once, inside the issuing turn of the main loop).
  std::vector<Outcome> Run(const std::vector<Operation>& operations,
                           const std::vector<std::string>& args, bool side_by_side, double seconds,
                           const kestrel::quire::RetryPolicy* policy = nullptr,
                           std::vector<std::uint64_t>* retries = nullptr, double cancel_after = -1);

  // Seeds, starts the emulator with `args`, runs `body` with the options of a client for it, and
  // stops the emulator.
  void WithEmulator(const std::vector<std::string>& args,
                    const std::function<void(const LibraryClient::Options&)>& body);

  static const char* Name(Fault fault);
  // The emulator's arguments for `fault` (writing the body files it needs).
  std::vector<std::string> ArgumentsFor(Fault fault);
  // Checks one cell of the matrix: CheckCallback() and the result that the fault must give.
  void CheckCell(Fault fault, Operation operation, const Outcome& outcome);
  // What every cell shows whatever the answer: exactly one callback, not inside the call that
  // issued the operation, with the operation's request id, and no response lines unless asked for.
  void CheckCallback(Operation operation, const Outcome& outcome);

  const Targets& targets() const { return targets_; }

 private:
  // Starts the emulator clean and creates the documents of targets_.
  void Seed();
  std::string WriteFile(const std::string& name, const std::string& bytes);
  // A feed in the emulator's form with entries until it is at least `bytes` long; returns the
  // number of entries.
  std::size_t WriteHugeFeed(const std::string& path, long long bytes);

  long live_at_start_ = 0;
  quire_test::TempDir files_;
  FaultEmulator emulator_;
  Targets targets_;
  // The bytes the emulator serves as the body of every 2xx answer, when a fault says so.
  long long fault_body_size_ = 0;
  std::uint64_t fault_body_hash_ = 0;
  std::size_t huge_feed_entries_ = 0;
};

}  // namespace quire_test::hardening
