// A chunk of bytes sent to an upload session: written into the session's file at the chunk's
// offset, made durable, then recorded as held. A chunk cut short by a broken connection still
// counts for the bytes that arrived.
#pragma once

#include <cstdint>
#include <functional>

#include "tools/quire-server/file_sink.h"
#include "tools/quire-server/i_exchange.h"
#include "tools/quire-server/session_claim.h"
#include "tools/quire-server/upload_session_record.h"

namespace quire_server {

class UploadSessionStore;

class SessionChunkExchange : public IExchange {
 public:
  // Answers for the session in its new state (308 or the finished document).
  using Answer = std::function<HttpResponse(const UploadSessionRecord& session)>;

  // The chunk covers [first, first + length) with first <= session.held.
  SessionChunkExchange(UploadSessionStore& sessions, UploadSessionRecord session,
                       SessionClaim claim, std::uint64_t first, std::uint64_t length,
                       Answer answer);

  bool OnBody(const char* data, std::size_t size) override;
  HttpResponse Finish() override;
  void Abort() override;

 private:
  // Makes the written bytes durable and records the new held count; false on failure.
  bool Record();

  UploadSessionStore& sessions_;
  UploadSessionRecord session_;
  SessionClaim claim_;
  std::uint64_t first_;
  std::uint64_t end_;
  FileSink sink_;
  Answer answer_;
  bool overflow_ = false;
};

}  // namespace quire_server
