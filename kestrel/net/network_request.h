// One request in the network layer: a counted object that owns its HTTP exchange and reports its
// completion to a callback object.
//
// Reference counting: the count is a `long` right after the virtual table, changed only with
// kestrel::TestThenAdd. A new request starts with one reference, held by the transport until it has
// reported completion. Whoever else keeps the pointer takes a reference (AddRef) and drops it
// (ReleaseRef); when the count drops from 1 the virtual Release() destroys the request, its response
// buffer included.
#pragma once

#include <QByteArray>
#include <QString>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/http_request.h"
#include "kestrel/net/request_header.h"

namespace kestrel {
namespace net {

class KESTREL_EXPORT NetworkRequest {
  KESTREL_MANAGED_ALLOCATION

 public:
  // Receives the completion of a request.
  class KESTREL_EXPORT Callback {
   public:
    virtual ~Callback();
    // Called exactly once per request, when it has finished (successfully or not), on the thread
    // that runs the main loop, and never before the connection manager's StartRequest returned. The
    // request stays valid during the call.
    virtual void OnRequestComplete(NetworkRequest* request) = 0;
  };

  // The description of one request.
  class KESTREL_EXPORT Info {
   public:
    // Which standard header lines the network layer adds of its own.
    enum DefaultHeaders {
      kNoDefaultHeaders = 0,  // only the caller's lines (and what HTTP itself requires)
      kUserAgent = 1,         // plus the User-Agent line
      kStandard = 2,          // plus User-Agent and the transport's usual lines (Accept, ...)
    };

    // `keep_response_headers`: keep the response header lines for GetResponseHeader (false drops
    // them). `callback` is borrowed and must stay alive until it is called. `user_data` is opaque
    // and handed back by NetworkRequest::user_data().
    Info(HttpRequest::MethodType method, const QByteArray& body, const QString& url,
         RequestHeaderList headers, bool keep_response_headers, Callback* callback, void* user_data,
         DefaultHeaders default_headers);
    ~Info();

    HttpRequest::MethodType method;
    QByteArray body;
    QString url;
    RequestHeaderList headers;
    bool keep_response_headers;
    Callback* callback;
    void* user_data;
    DefaultHeaders default_headers;
  };

  // Takes the request description from `info`: the body is shared, not copied, and the header list
  // is moved out of it. The count starts at 1.
  explicit NetworkRequest(Info* info);
  NetworkRequest(const NetworkRequest&) = delete;
  NetworkRequest& operator=(const NetworkRequest&) = delete;

  HttpRequest* GetHttpRequest() { return &http_request_; }
  const HttpRequest* GetHttpRequest() const { return &http_request_; }
  void* user_data() const { return user_data_; }
  bool keep_response_headers() const { return keep_response_headers_; }
  Info::DefaultHeaders default_headers() const { return default_headers_; }
  bool completed() const { return completed_; }
  volatile long* ref_count() { return &ref_count_; }

  // Reports completion to the callback: once; later calls do nothing. Transports call it on the
  // main loop's thread, after the response is in place.
  void Complete();

  // Takes and drops a reference (see the top of this file).
  static void AddRef(NetworkRequest* request);
  static void ReleaseRef(NetworkRequest* request);

  // Destroys the request; called when the last reference is dropped.
  virtual void Release();

 protected:
  virtual ~NetworkRequest();

 private:
  volatile long ref_count_;
  HttpRequest http_request_;
  Callback* callback_;
  void* user_data_;
  bool keep_response_headers_;
  Info::DefaultHeaders default_headers_;
  bool completed_ = false;
};

}  // namespace net
}  // namespace kestrel
