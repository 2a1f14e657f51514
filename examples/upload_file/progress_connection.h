// An IConnection decorator that reports the progress of resumable uploads: it forwards every call
// to the connection it wraps and, when the answer to a chunk (a PUT) comes back, tells how many
// bytes the service holds.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <vector>

#include <quire/connection/i_connection.h>

namespace upload_example {

class ProgressConnection : public kestrel::quire::IConnection {
 public:
  // Called on the main thread after each chunk's answer: the bytes the service holds and the
  // upload's total size.
  using ProgressCallback = std::function<void(std::uint64_t held, std::uint64_t total)>;

  // Takes ownership of `inner`, which must be allocated with new (or kestrel::doNew).
  ProgressConnection(kestrel::quire::IConnection* inner, ProgressCallback on_progress);
  ~ProgressConnection() override;
  ProgressConnection(const ProgressConnection&) = delete;
  ProgressConnection& operator=(const ProgressConnection&) = delete;

  void Init(const std::vector<QString>& headers) override;
  unsigned int Request(const kestrel::quire::ConnectionParams& params,
                       kestrel::quire::ResponseCallback callback) override;
  void Cancel(unsigned int request_id) override;

  // How many chunk answers have arrived.
  int chunks() const { return chunks_; }

 private:
  kestrel::quire::IConnection* inner_;
  ProgressCallback on_progress_;
  int chunks_ = 0;
};

}  // namespace upload_example
