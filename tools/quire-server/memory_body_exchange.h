// A request with a small body (metadata) collected in memory and then answered.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/quire-server/i_exchange.h"

namespace quire_server {

class MemoryBodyExchange : public IExchange {
 public:
  using Answer = std::function<HttpResponse(const std::string& body)>;

  MemoryBodyExchange(std::size_t max_bytes, Answer answer);

  bool OnBody(const char* data, std::size_t size) override;
  HttpResponse Finish() override;
  void Abort() override {}

 private:
  std::size_t max_bytes_;
  Answer answer_;
  std::string body_;
  bool too_large_ = false;
};

}  // namespace quire_server
