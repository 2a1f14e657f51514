// The protocol logic of the document service: checks the headers every request carries, routes by
// path, and answers user information, the feed, content, create, replace, delete, resumable
// uploads and the emulator's own controls. Requests with a body that matters get an IExchange that
// takes the body as it arrives. Bad input gets a 4xx with an error document before anything is
// changed. Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/quire-server/document_store.h"
#include "tools/quire-server/feed_writer.h"
#include "tools/quire-server/file_sink.h"
#include "tools/quire-server/http_response.h"
#include "tools/quire-server/i_exchange.h"
#include "tools/quire-server/request_head.h"
#include "tools/quire-server/service_options.h"
#include "tools/quire-server/upload_session_record.h"

namespace quire_server {

class FaultInjector;
class UploadSessionStore;
class UrlLayout;

class ServiceHandler {
 public:
  // Either an answer at once (the body, if any, is not needed) or an exchange for the body.
  struct Decision {
    std::optional<HttpResponse> answer;
    std::unique_ptr<IExchange> exchange;
  };

  ServiceHandler(ServiceOptions options, DocumentStore& documents, UploadSessionStore& sessions,
                 const UrlLayout& urls, const FaultInjector& faults);

  Decision Begin(const RequestHead& head);

 private:
  Decision Dispatch(const RequestHead& head);
  std::optional<HttpResponse> CheckAuthorization(const RequestHead& head) const;

  HttpResponse UserInfo() const;
  HttpResponse Feed();
  Decision Create(const RequestHead& head);
  HttpResponse GetEntry(const std::string& id);
  // The content, whole or the one range asked for (Range, guarded by If-Range).
  HttpResponse GetContent(const std::string& id, const RequestHead& head);
  Decision Replace(const std::string& id, const RequestHead& head);
  // Stores a document's content: gets the content in a new content file and the media type (from
  // Content-Type when given, else `type`); its answer is the request's.
  using ContentCommit = std::function<HttpResponse(FileSink& content, const std::string& type)>;
  // Takes the body of a request that sends a document's content into a new content file for
  // `commit` (an exception it throws is a 500). Refuses a malformed Content-Type (400) and a
  // content file that cannot be made (500) before the body is read.
  Decision TakeContent(const RequestHead& head, std::string type, ContentCommit commit);
  HttpResponse Delete(const std::string& id, const RequestHead& head);
  Decision OpenSession(const RequestHead& head, const std::string& document_id);
  HttpResponse StartSession(const std::string& document_id, const std::string& metadata,
                            const std::string& content_type, std::uint64_t total);
  Decision SessionPut(const std::string& session_id, const RequestHead& head);
  // 308 while the session lacks bytes, else the finished document.
  HttpResponse SessionState(const UploadSessionRecord& session);
  HttpResponse FinishSession(const UploadSessionRecord& session);
  HttpResponse Admin(const std::string& id, const std::string& action);

  HttpResponse EntryAnswer(int status, const DocumentRecord& record) const;

  const ServiceOptions options_;
  DocumentStore& documents_;
  UploadSessionStore& sessions_;
  const UrlLayout& urls_;
  const FaultInjector& faults_;
  FeedWriter feed_writer_;
};

}  // namespace quire_server
