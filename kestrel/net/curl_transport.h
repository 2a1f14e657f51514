/// @file
/// The network layer's HTTPS transport, over libcurl's multi interface.
#pragma once

#include <cstddef>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/curl_transport_config.h"
#include "kestrel/net/i_transport.h"

namespace kestrel {
namespace net {

/// The network layer's HTTPS transport, over libcurl's multi interface.
///
/// One I/O thread per transport runs libcurl; it starts with the first request. Start() only checks
/// the request, prepares its header lines and queues it for the I/O thread. When a transfer ends,
/// the I/O thread fills in the request's response (code, header lines, body buffer) and posts the
/// completion to kestrel::MainLoop::Default(), whose thread calls NetworkRequest::Complete() and
/// then drops the transport's reference. So every request completes exactly once, on the main
/// loop's thread, and never inside Start(). After activity the I/O thread stays awake for a few
/// tens of microseconds before it sleeps, so that a request issued from a completion handler (the
/// next step of a chained operation) starts without a wake-up.
///
/// What goes on the wire: HTTP/1.1 only, schemes http and https only, redirects never followed (a
/// 302 reaches the caller as 302), TLS peer and host-name verification on unless the configuration
/// turns them off by name. Proxies from the environment are ignored; the configuration names one
/// (CurlTransportConfig::proxy), and https requests then pass through it in a CONNECT tunnel. The
/// caller's header records are sent as whole lines; depending on
/// NetworkRequest::Info::DefaultHeaders the transport adds User-Agent (1) or User-Agent and
/// "Accept: */*" (2), and libcurl adds what HTTP needs (Host, Content-Length). A request whose URL
/// does not parse, whose scheme is not http or https, or whose header lines contain CR, LF or NUL
/// (or are not "Name: value" lines) is not sent: it completes with status::kErrorInvalidRequest.
///
/// What comes back: an HTTP answer as status::FromHttp(number); response header lines of the final
/// response (1xx interim responses are dropped) in arrival order as "Name: value", the name exactly
/// as the server wrote it; the body in the request's ByteBuffer, sized from Content-Length when the
/// server sends one. A body announced at 1 MiB or more goes into storage that the transport
/// recycles: when such a request is released, its storage is kept for up to ten seconds (at most
/// four blocks, 2 GiB in all) for the next large body, which then lands in memory the kernel need
/// not map and clear again. A request with a NetworkRequest::Info::response_sink hands the body of
/// a 2xx answer to the sink as it arrives instead (see ResponseSink): the transfer is paused while
/// the sink is full and resumed when it has room, and stopped when the sink stops; a non-2xx body
/// still goes to the buffer, up to 1 MiB (a longer one stops the transfer). A failure without a
/// complete HTTP answer gives one of the `status::kError...` codes, and whatever header lines and
/// body bytes had arrived stay in place. A server certificate that is refused (untrusted issuer,
/// expired, wrong host name, pinned key mismatch) or cannot be checked (unreadable CA file or
/// revocation list), and a local TLS setup that cannot be used, give status::kErrorCertificate; a
/// handshake that failed otherwise gives status::kErrorTls.
///
/// Progress: a request described with NetworkRequest::Info::report_progress hears of its transfer
/// (NetworkRequest::Callback::OnRequestProgress()) whenever 256 KiB more have moved or 100 ms have
/// passed with bytes moving, at most one report waiting in the main loop at a time, and once more
/// with the final figures just before it completes.
///
/// How ConnectionOptions apply (libcurl's connection cache is shared by every request of the
/// transport; its limits follow the options of the most recent request):
/// - max_connections_per_host: at most this many connections to one host and port; further requests
///   wait for one to be free (0: no limit);
/// - max_idle_connections_per_host: the connection cache keeps this many idle connections per host
///   (approximately: connections in use never count against it); 0 closes every connection after
///   use;
/// - keep_alive: false sends "Connection: close" and closes the connection after each request;
/// - stall_timeout_seconds: connecting (TCP and TLS) must finish within this time, and a transfer
///   during which no byte moves in either direction for this long (rounded to whole seconds, at
///   least one) fails with status::kErrorTimedOut; 0 or less turns both off;
/// - idle_connection_seconds: a connection idle for longer than this is not reused.
class KESTREL_EXPORT CurlTransport : public ITransport {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// A transport with the default configuration (CurlTransportConfig()). Hosts normally use
  /// Default() rather than a transport of their own.
  CurlTransport();
  /// Stops the I/O thread. Requests still in flight are not sent further: each completes with
  /// status::kErrorUnknown (keeping what had arrived), later, from the main loop.
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  /// The process-wide transport that TransportRegistry::BuiltIn() names. Created on first use and
  /// never destroyed. A host configures it with Configure() before it creates services.
  static CurlTransport* Default();

  /// Replaces the configuration for requests started from now on (requests in flight keep the one
  /// they started with). Returns false, keeping the previous configuration, when a CA certificate
  /// file cannot be read or holds no certificate, a host mapping lacks a host, an address or a
  /// port in 1..65535, a proxy address is not a URL of a known proxy scheme with a host (and no
  /// path), a proxy password comes without a user, or a no-proxy entry is not a host name, an
  /// address, a network or "*". Call it on the main loop's thread.
  ///
  /// A request that goes through a proxy and fails because of it completes with
  /// status::kErrorProxyUnreachable, status::kErrorProxyRefused or
  /// status::kErrorProxyAuthenticationRequired (status 2 for the quire library's callbacks).
  bool Configure(const CurlTransportConfig& config);

  /// Checks the request, prepares its header lines and queues it for the I/O thread; see
  /// ITransport::Start() for the contract and the class description for what goes on the wire.
  /// Call it on the main loop's thread.
  void Start(NetworkRequest* request, const ServerInfo& server,
             const ConnectionOptions& options) override;

  /// Takes the request off the wire: the I/O thread, woken at once, removes its transfer from
  /// libcurl (closing the connection when bytes were moving), frees the transfer's memory and
  /// posts the completion, which carries status::kErrorCancelled. A request whose completion was
  /// already on its way completes as cancelled all the same. Main loop's thread; see
  /// ITransport::Cancel() and ConnectionManager::CancelRequest().
  void Cancel(NetworkRequest* request) override;

  /// Requests started whose completion has not yet been handed to the main loop. Any thread.
  std::size_t in_flight() const;

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace net
}  // namespace kestrel
