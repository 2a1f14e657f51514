// The HTTP exchange of one network request: what is sent and what came back.
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

class KESTREL_EXPORT HttpRequest {
 public:
  enum MethodType { kGet = 0, kPost = 1, kPut = 2, kDelete = 3 };

  HttpRequest();
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  // --- The request, as given to the connection manager.
  MethodType method() const { return method_; }
  const QString& url() const { return url_; }
  // The body; shares the caller's bytes (no copy is made).
  const QByteArray& body() const { return body_; }
  const RequestHeaderList& headers() const { return headers_; }
  void SetRequest(MethodType method, const QString& url, const QByteArray& body,
                  RequestHeaderList headers);

  // --- The response. Filled by the transport; read after completion.
  // The completion code (see network_status.h); 0 until the transport sets one.
  std::uint32_t GetResponseStatus() const { return response_status_; }
  // The body that arrived, or null when none did. Valid while the request lives.
  const ByteBuffer* GetResponseBuffer() const { return response_buffer_; }
  int GetResponseHeaderCount() const { return static_cast<int>(response_headers_.size()); }
  // The header line at `index` ("Name: value" as the server wrote it), or null when out of range.
  const QString* GetResponseHeader(int index) const;

  void SetResponseStatus(std::uint32_t code) { response_status_ = code; }
  // The buffer to receive the body into; created on first use.
  ByteBuffer* MutableResponseBuffer();
  void AddResponseHeader(const QString& line);
  void ClearResponse();

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
