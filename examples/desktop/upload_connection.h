// An IConnection decorator for the window's uploads: it forwards every call to the connection it
// wraps, reports the bytes the service holds after each chunk, and can stop an upload between two
// chunks (the library's own Cancel does not stop a request in flight).
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <vector>

#include <quire/connection/i_connection.h>

namespace desktop_example {

class UploadConnection : public kestrel::quire::IConnection {
 public:
  // Called on the main thread after each chunk's answer: bytes held by the service, and total.
  using ProgressCallback = std::function<void(std::uint64_t held, std::uint64_t total)>;

  // Takes ownership of `inner`, which must be allocated with new (or kestrel::doNew).
  UploadConnection(kestrel::quire::IConnection* inner, ProgressCallback on_progress);
  ~UploadConnection() override;
  UploadConnection(const UploadConnection&) = delete;
  UploadConnection& operator=(const UploadConnection&) = delete;

  void Init(const std::vector<QString>& headers) override;
  unsigned int Request(const kestrel::quire::ConnectionParams& params,
                       kestrel::quire::ResponseCallback callback) override;
  void Cancel(unsigned int request_id) override;

  // Stops the upload under way: the chunk in flight finishes, and the next one is not sent; the
  // upload's callback then receives status 2. Cleared when the next upload starts (its POST).
  void StopUpload() { stopping_ = true; }
  bool stopping() const { return stopping_; }

 private:
  kestrel::quire::IConnection* inner_;
  ProgressCallback on_progress_;
  bool stopping_ = false;
  unsigned int next_local_id_ = 0x7f000000u;
};

}  // namespace desktop_example
