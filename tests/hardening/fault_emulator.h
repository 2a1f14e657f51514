// A quire-server on 127.0.0.1 with a data folder of its own that outlives restarts, so that
// documents made while it runs without faults are still there when it is started again with some.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/server_process.h"
#include "tests/support/temp_dir.h"

namespace quire_test::hardening {

class FaultEmulator {
 public:
  FaultEmulator() = default;
  ~FaultEmulator();
  FaultEmulator(const FaultEmulator&) = delete;
  FaultEmulator& operator=(const FaultEmulator&) = delete;

  // Starts the server (stopping a running one first) with `args` added to its data folder;
  // returns whether it printed its listening line.
  bool Start(const std::vector<std::string>& args);
  // Stops it with SIGTERM; returns its exit status (-1 when it had to be killed).
  int Stop();

  int port() const { return server_ ? server_->port() : 0; }
  // The certificate it made on its first start; clients trust this file.
  std::string certificate_file() const { return data_.path() + "/tls/cert.pem"; }
  const std::string& folder() const { return data_.path(); }

 private:
  quire_test::TempDir data_;
  std::unique_ptr<quire_test::ServerProcess> server_;
};

}  // namespace quire_test::hardening
