#include "tests/hardening/fault_emulator.h"

namespace quire_test::hardening {

FaultEmulator::~FaultEmulator() { Stop(); }

bool FaultEmulator::Start(const std::vector<std::string>& args) {
  Stop();
  std::vector<std::string> all = {"--data", data_.path()};
  all.insert(all.end(), args.begin(), args.end());
  server_ = std::make_unique<quire_test::ServerProcess>(all);
  return server_->started();
}

int FaultEmulator::Stop() {
  if (!server_) return 0;
  const int status = server_->pid() > 0 ? server_->Terminate() : 0;
  server_.reset();
  return status;
}

}  // namespace quire_test::hardening
