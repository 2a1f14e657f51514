// A host program's side of the library over the real HTTPS transport: a CurlTransport of its own
// that sends the service's host names to a server on 127.0.0.1 and trusts the given certificate
// files, and, created over that transport, a DocsService, a UserInfoService and a Connection with a
// ConnectionUtils for resumable uploads, all signed in with one token. Each client has its own
// transport (and so its own I/O thread and connection limits), so that several clients run their
// requests side by side. Create and destroy it on the main loop's thread, with nothing in flight.
#pragma once

#include <QString>
#include <string>
#include <vector>

#include "kestrel/net/curl_transport.h"
#include "kestrel/net/curl_transport_config.h"
#include "quire/connection/connection.h"
#include "quire/connection/retry_policy.h"
#include "quire/connection/retrying_connection.h"
#include "quire/services/docs_service.h"
#include "quire/services/user_info_service.h"
#include "quire/upload/connection_utils.h"

namespace quire_test::hardening {

inline constexpr char kToken[] = "quire-demo-token";
inline constexpr char kAccount[] = "demo@quire.example";

class LibraryClient {
 public:
  struct Options {
    int port = 0;                            // where docs.quire.example and api.quire.example go
    std::vector<std::string> trusted_files;  // PEM files trusted besides the system's authorities
    bool insecure = false;                   // turns off certificate verification
    QString token = QString::fromLatin1(kToken);
    std::uint32_t chunk_size = 64 * 1024;  // of resumable uploads
    // When set, every connection of the client is a RetryingConnection under this policy.
    const kestrel::quire::RetryPolicy* retry_policy = nullptr;
  };

  explicit LibraryClient(const Options& options);
  ~LibraryClient();
  LibraryClient(const LibraryClient&) = delete;
  LibraryClient& operator=(const LibraryClient&) = delete;

  // Whether the transport took the configuration.
  bool configured() const { return configured_; }
  kestrel::quire::DocsService& docs() { return *docs_; }
  kestrel::quire::UserInfoService& user_info() { return *user_info_; }
  // Uploads go through a Connection whose fixed lines are the version and the token's line.
  kestrel::quire::ConnectionUtils& uploads() { return *uploads_; }
  kestrel::net::CurlTransport& transport() { return *transport_; }
  // The connection the uploads go through.
  kestrel::quire::IConnection& upload_connection() { return *upload_connection_; }
  // The retries decided by the client's retrying connections (0 without a retry policy).
  std::uint64_t retries() const;

  // Runs the main loop until the transport has handed every completion to it and the loop has
  // run them (the transport's count drops on its own thread, without waking the loop, hence the
  // short slices); false after `seconds`.
  bool WaitForIdle(double seconds);

  static kestrel::net::CurlTransportConfig Config(const Options& options);

 private:
  bool configured_ = false;
  kestrel::net::CurlTransport* transport_;
  kestrel::quire::DocsService* docs_ = nullptr;
  kestrel::quire::UserInfoService* user_info_ = nullptr;
  kestrel::quire::IConnection* upload_connection_ = nullptr;
  std::vector<kestrel::quire::RetryingConnection*> retrying_;  // owned by the services and uploads
  kestrel::quire::ConnectionUtils* uploads_ = nullptr;
};

}  // namespace quire_test::hardening
