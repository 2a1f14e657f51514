// A request whose body becomes new content: streamed into a fresh temporary file, made durable,
// then handed to a commit step that publishes it (create, replace). The temporary file is removed
// unless the commit step keeps it.
#pragma once

#include <cstdint>
#include <functional>

#include "tools/quire-server/file_sink.h"
#include "tools/quire-server/i_exchange.h"

namespace quire_server {

class FileBodyExchange : public IExchange {
 public:
  // Called with the durable file; answers the request.
  using Commit = std::function<HttpResponse(FileSink& content)>;

  FileBodyExchange(FileSink sink, std::uint64_t max_bytes, Commit commit);

  bool OnBody(const char* data, std::size_t size) override;
  HttpResponse Finish() override;
  void Abort() override;

 private:
  FileSink sink_;
  std::uint64_t max_bytes_;
  Commit commit_;
  bool too_large_ = false;
};

}  // namespace quire_server
