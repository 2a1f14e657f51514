#include "tools/quire-server/session_chunk_exchange.h"

#include <algorithm>
#include <cstring>

#include "tools/quire-server/upload_session_store.h"

namespace quire_server {

SessionChunkExchange::SessionChunkExchange(UploadSessionStore& sessions,
                                           UploadSessionRecord session, SessionClaim claim,
                                           std::uint64_t first, std::uint64_t length, Answer answer)
    : sessions_(sessions),
      session_(std::move(session)),
      claim_(std::move(claim)),
      first_(first),
      end_(first + length),
      sink_(FileSink::OpenAt(sessions.PartPath(session_.id), first)),
      answer_(std::move(answer)) {}

bool SessionChunkExchange::OnBody(const char* data, std::size_t size) {
  if (sink_.position() + size > end_) {
    overflow_ = true;
    return false;
  }
  return sink_.Write(data, size);
}

HttpResponse SessionChunkExchange::Finish() {
  if (overflow_ || sink_.position() != end_) {
    return HttpResponse::Error(400, "badContentLength",
                               "the body length differs from the Content-Range");
  }
  if (!Record()) {
    return HttpResponse::Error(
        500, "storageError",
        std::string("cannot store the chunk: ") + std::strerror(sink_.error()));
  }
  return answer_(session_);
}

void SessionChunkExchange::Abort() {
  // The bytes that did arrive extend the held prefix; the client learns of them when it asks.
  if (sink_.position() > session_.held) Record();
}

bool SessionChunkExchange::Record() {
  if (!sink_.Sync()) return false;
  std::uint64_t held = std::max(session_.held, sink_.position());
  if (held != session_.held) {
    sessions_.SetHeld(session_.id, held);
    session_.held = held;
  }
  return true;
}

}  // namespace quire_server
