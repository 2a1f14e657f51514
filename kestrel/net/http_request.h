/// @file
/// The HTTP exchange of one network request: what is sent and what came back.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <vector>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/byte_buffer.h"
#include "kestrel/net/request_header.h"

namespace kestrel {
namespace net {

/// The HTTP exchange of one network request: what is sent and what came back. It lives inside its
/// NetworkRequest and dies with it.
///
/// Threading: the request half is set before the transport starts; the transport fills the
/// response half on its own thread and hands the request over to the main loop's thread, where it
/// is read after completion. Never touched by two threads at once.
class KESTREL_EXPORT HttpRequest {
 public:
  /// The HTTP methods; the values are fixed.
  enum MethodType {
    kGet = 0,    ///< GET
    kPost = 1,   ///< POST
    kPut = 2,    ///< PUT
    kDelete = 3  ///< DELETE
  };

  /// A GET of no URL, without response.
  HttpRequest();
  /// Releases the body, the header records and the response buffer.
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  /// @name The request, as given to the connection manager
  ///@{

  /// The method.
  MethodType method() const { return method_; }
  /// The absolute URL, percent-encoded.
  const QString& url() const { return url_; }
  /// The body; shares the caller's bytes (no copy is made).
  const QByteArray& body() const { return body_; }
  /// The header records in sending order.
  const RequestHeaderList& headers() const { return headers_; }
  /// Sets the request half: the body is shared, the header list taken over.
  void SetRequest(MethodType method, const QString& url, const QByteArray& body,
                  RequestHeaderList headers);
  ///@}

  /// @name The response
  /// Filled by the transport; read after completion.
  ///@{

  /// The completion code (see network_status.h); 0 until the transport sets one.
  std::uint32_t GetResponseStatus() const { return response_status_; }
  /// The body that arrived, or null when none did. Valid while the request lives.
  const ByteBuffer* GetResponseBuffer() const { return response_buffer_; }
  /// The number of response header lines kept (0 when the request did not keep them).
  int GetResponseHeaderCount() const { return static_cast<int>(response_headers_.size()); }
  /// The header line at `index` ("Name: value" as the server wrote it), or null when out of range.
  /// Valid while the request lives.
  const QString* GetResponseHeader(int index) const;

  /// Sets the completion code; for transports.
  void SetResponseStatus(std::uint32_t code) { response_status_ = code; }
  /// The buffer to receive the body into; created on first use and owned by the request. For
  /// transports.
  ByteBuffer* MutableResponseBuffer();
  /// Appends one response header line; for transports.
  void AddResponseHeader(const QString& line);
  /// Forgets the response: code 0, no header lines, the body buffer (if any) emptied; for a
  /// transport that starts the exchange again.
  void ClearResponse();
  ///@}

 private:
  MethodType method_ = kGet;
  QString url_;
  QByteArray body_;
  RequestHeaderList headers_;
  std::uint32_t response_status_ = 0;
  ByteBuffer* response_buffer_ = nullptr;
  std::vector<QString, MMAlloc<QString>> response_headers_;
};

}  // namespace net
}  // namespace kestrel
