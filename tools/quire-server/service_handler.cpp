#include "tools/quire-server/service_handler.h"

#include <strings.h>

#include <exception>
#include <pugixml.hpp>

#include "quire/services/endpoints.h"
#include "tools/quire-server/byte_range.h"
#include "tools/quire-server/content_range.h"
#include "tools/quire-server/fault_injector.h"
#include "tools/quire-server/field_text.h"
#include "tools/quire-server/file_body_exchange.h"
#include "tools/quire-server/memory_body_exchange.h"
#include "tools/quire-server/session_chunk_exchange.h"
#include "tools/quire-server/upload_session_store.h"
#include "tools/quire-server/url_layout.h"

namespace quire_server {
namespace {

using RouteKind = UrlLayout::RouteKind;
using Decision = ServiceHandler::Decision;

constexpr char kAtom[] = "application/atom+xml";
constexpr char kOctetStream[] = "application/octet-stream";
constexpr char kUntitled[] = "Untitled";
// Metadata of an upload is a small Atom entry.
constexpr std::size_t kMaxMetadataBytes = 1u << 20;

Decision Answer(HttpResponse response) {
  Decision decision;
  decision.answer = std::move(response);
  return decision;
}

Decision Take(std::unique_ptr<IExchange> exchange) {
  Decision decision;
  decision.exchange = std::move(exchange);
  return decision;
}

HttpResponse MethodNotAllowed(const char* allow) {
  HttpResponse response =
      HttpResponse::Error(405, "methodNotAllowed", std::string("allowed here: ") + allow);
  response.Set("Allow", allow);
  return response;
}

HttpResponse InternalError(const std::exception& error) {
  return HttpResponse::Error(500, "internalError", error.what());
}

std::string Trim(std::string_view text) { return std::string(TrimBlanks(text)); }

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Slug values are percent-encoded UTF-8.
bool PercentDecode(const std::string& text, std::string* out) {
  out->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out->push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return false;
    int high = HexValue(text[i + 1]);
    int low = HexValue(text[i + 2]);
    if (high < 0 || low < 0) return false;
    out->push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

// Well-formed UTF-8 without control characters (tab excepted): what may go into a title.
bool ValidTitle(const std::string& text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      if ((c < 0x20 && c != '\t') || c == 0x7f) return false;
      ++p;
      continue;
    }
    int extra;
    std::uint32_t code;
    if (c >= 0xc2 && c <= 0xdf) {
      extra = 1;
      code = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
      extra = 2;
      code = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xc0) != 0x80) return false;
      code = (code << 6) | (p[i] & 0x3f);
    }
    if ((extra == 2 && code < 0x800) || (extra == 3 && (code < 0x10000 || code > 0x10ffff)) ||
        (code >= 0xd800 && code <= 0xdfff) || (code >= 0x80 && code <= 0x9f)) {
      return false;
    }
    p += extra + 1;
  }
  return text.size() <= 4096;
}

// type "/" subtype with optional parameters, printable ASCII only.
bool ValidMediaType(const std::string& text) {
  if (text.empty() || text.size() > 256) return false;
  std::size_t slash = text.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 >= text.size()) return false;
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

// The local part of a qualified XML name.
std::string_view LocalName(const char* name) {
  std::string_view text(name);
  std::size_t colon = text.find(':');
  return colon == std::string_view::npos ? text : text.substr(colon + 1);
}

std::optional<std::string> IfMatch(const RequestHead& head) {
  const std::string* value = head.Find("If-Match");
  if (value == nullptr) return std::nullopt;
  return Trim(*value);
}

}  // namespace

ServiceHandler::ServiceHandler(ServiceOptions options, DocumentStore& documents,
                               UploadSessionStore& sessions, const UrlLayout& urls,
                               const FaultInjector& faults)
    : options_(std::move(options)),
      documents_(documents),
      sessions_(sessions),
      urls_(urls),
      faults_(faults),
      feed_writer_(urls, options_.account) {}

Decision ServiceHandler::Begin(const RequestHead& head) {
  try {
    return Dispatch(head);
  } catch (const std::exception& error) {
    return Answer(InternalError(error));
  }
}

Decision ServiceHandler::Dispatch(const RequestHead& head) {
  const std::string* version = head.Find("Quire-Version");
  if (version == nullptr) {
    return Answer(HttpResponse::Error(400, "missingVersion", "Quire-Version is required"));
  }
  if (Trim(*version) != kestrel::quire::kProtocolVersion) {
    return Answer(HttpResponse::Error(
        400, "unsupportedVersion",
        std::string("only Quire-Version ") + kestrel::quire::kProtocolVersion + " is served"));
  }

  UrlLayout::Route route = urls_.Match(head.target);
  if (route.kind == RouteKind::kUnknown) {
    return Answer(HttpResponse::Error(404, "notFound", "no such resource"));
  }
  if (route.kind == RouteKind::kInvalidId) {
    return Answer(
        HttpResponse::Error(400, "invalidIdentifier", "the address holds a malformed identifier"));
  }
  // The user-information request carries no token, and an upload session's address is itself
  // the credential.
  if (route.kind != RouteKind::kUserInfo && route.kind != RouteKind::kSession) {
    if (auto denied = CheckAuthorization(head)) return Answer(std::move(*denied));
  }

  const std::string& m = head.method;
  bool get = m == "GET" || m == "HEAD";
  switch (route.kind) {
    case RouteKind::kUserInfo:
      return Answer(get ? UserInfo() : MethodNotAllowed("GET, HEAD"));
    case RouteKind::kFeed:
      if (get) return Answer(Feed());
      if (m == "POST") return Create(head);
      return Answer(MethodNotAllowed("GET, HEAD, POST"));
    case RouteKind::kBatch:
      if (m == "POST") {
        return Answer(HttpResponse::Error(501, "notImplemented",
                                          "batch requests are not provided by this server"));
      }
      return Answer(MethodNotAllowed("POST"));
    case RouteKind::kEntry:
      if (get) return Answer(GetEntry(route.id));
      if (m == "PUT") return Replace(route.id, head);
      if (m == "DELETE") return Answer(Delete(route.id, head));
      return Answer(MethodNotAllowed("GET, HEAD, PUT, DELETE"));
    case RouteKind::kContent:
      return Answer(get ? GetContent(route.id, head) : MethodNotAllowed("GET, HEAD"));
    case RouteKind::kAcl:
    case RouteKind::kRevisions:
      if (!get) return Answer(MethodNotAllowed("GET, HEAD"));
      if (!documents_.Find(route.id)) {
        return Answer(HttpResponse::Error(404, "documentNotFound", "no such document"));
      }
      return Answer(
          HttpResponse::Error(501, "notImplemented", "this feed is not provided by this server"));
    case RouteKind::kResumableCreate:
      if (m == "POST") return OpenSession(head, std::string());
      return Answer(MethodNotAllowed("POST"));
    case RouteKind::kResumableEdit:
      if (m == "POST") return OpenSession(head, route.id);
      return Answer(MethodNotAllowed("POST"));
    case RouteKind::kSession:
      if (m == "PUT") return SessionPut(route.id, head);
      return Answer(MethodNotAllowed("PUT"));
    case RouteKind::kAdmin:
      if (m == "POST") return Answer(Admin(route.id, route.action));
      return Answer(MethodNotAllowed("POST"));
    case RouteKind::kUnknown:
    case RouteKind::kInvalidId:
      break;
  }
  return Answer(HttpResponse::Error(404, "notFound", "no such resource"));
}

std::optional<HttpResponse> ServiceHandler::CheckAuthorization(const RequestHead& head) const {
  const std::string* value = head.Find("Authorization");
  const char* problem = "an Authorization: Bearer token is required";
  if (value != nullptr) {
    std::string text = Trim(*value);
    if (text.size() > 7 && ::strncasecmp(text.data(), "Bearer ", 7) == 0) {
      std::string token = Trim(std::string_view(text).substr(7));
      for (const std::string& known : options_.tokens) {
        if (token == known) return std::nullopt;
      }
      problem = "the token is not known";
    }
  }
  HttpResponse response = HttpResponse::Error(401, "unauthorized", problem);
  response.Set("WWW-Authenticate", value == nullptr
                                       ? "Bearer realm=\"quire\""
                                       : "Bearer realm=\"quire\", error=\"invalid_token\"");
  return response;
}

HttpResponse ServiceHandler::UserInfo() const {
  HttpResponse response;
  response.Set("Content-Type", "application/x-www-form-urlencoded");
  response.body = "email=" + options_.account + "&isVerified=true";
  return response;
}

HttpResponse ServiceHandler::Feed() {
  DocumentStore::Listing listing = documents_.List();
  HttpResponse response;
  response.Set("Content-Type", kAtom);
  response.Set("ETag", listing.etag);
  response.body = feed_writer_.Feed(listing);
  return response;
}

Decision ServiceHandler::Create(const RequestHead& head) {
  if (head.content_length && *head.content_length > options_.max_upload_bytes) {
    return Answer(HttpResponse::Error(413, "contentTooLarge",
                                      "the content is larger than the server accepts"));
  }
  std::string title = kUntitled;
  if (const std::string* slug = head.Find("Slug")) {
    if (!PercentDecode(Trim(*slug), &title) || !ValidTitle(title)) {
      return Answer(HttpResponse::Error(400, "badSlug", "Slug is not a valid title"));
    }
  }
  return TakeContent(head, kOctetStream, [this, title](FileSink& content, const std::string& type) {
    DocumentRecord record =
        documents_.Create({content.path(), content.written(), false}, title, type);
    content.Keep();
    HttpResponse response = EntryAnswer(201, record);
    response.Set("Location", urls_.Edit(record.id));
    return response;
  });
}

HttpResponse ServiceHandler::GetEntry(const std::string& id) {
  std::optional<DocumentRecord> record = documents_.Find(id);
  if (!record) return HttpResponse::Error(404, "documentNotFound", "no such document");
  return EntryAnswer(200, *record);
}

HttpResponse ServiceHandler::GetContent(const std::string& id, const RequestHead& head) {
  DocumentRecord record;
  UniqueFd fd = documents_.OpenContent(id, &record);
  if (!fd.valid()) return HttpResponse::Error(404, "documentNotFound", "no such document");
  HttpResponse response;
  response.Set("Content-Type", record.content_type);
  response.Set("ETag", record.etag);
  response.Set("Accept-Ranges", "bytes");
  response.file = std::move(fd);
  response.file_size = record.size;

  // One Range field with one well-formed byte range is served; several fields, several ranges or
  // a malformed value get the whole content. If-Range must name the current (strong) tag exactly,
  // else the client's part is of another version and it gets the whole content.
  if (head.Count("Range") != 1) return response;
  std::optional<ByteRange> range = ByteRange::Parse(*head.Find("Range"));
  if (!range) return response;
  if (head.Count("If-Range") > 1) return response;
  if (const std::string* if_range = head.Find("If-Range")) {
    if (Trim(*if_range) != record.etag) return response;
  }
  ByteRange::Selection selection = range->Select(record.size);
  if (!selection.satisfiable) {
    HttpResponse refusal = HttpResponse::Error(416, "rangeNotSatisfiable",
                                               "the range starts beyond the end of the content");
    refusal.Set("Content-Range", "bytes */" + std::to_string(record.size));
    refusal.Set("ETag", record.etag);
    refusal.Set("Accept-Ranges", "bytes");
    return refusal;
  }
  response.status = 206;
  response.Set("Content-Range", "bytes " + std::to_string(selection.first) + "-" +
                                    std::to_string(selection.first + selection.length - 1) + "/" +
                                    std::to_string(record.size));
  response.file_offset = selection.first;
  response.file_size = selection.length;
  return response;
}

Decision ServiceHandler::Replace(const std::string& id, const RequestHead& head) {
  std::optional<DocumentRecord> current = documents_.Find(id);
  if (!current) return Answer(HttpResponse::Error(404, "documentNotFound", "no such document"));
  std::optional<std::string> if_match = IfMatch(head);
  if (if_match && !DocumentStore::EtagMatches(*if_match, current->etag)) {
    return Answer(HttpResponse::Error(412, "preconditionFailed",
                                      "the entity tag does not match the document's"));
  }
  if (head.content_length && *head.content_length > options_.max_upload_bytes) {
    return Answer(HttpResponse::Error(413, "contentTooLarge",
                                      "the content is larger than the server accepts"));
  }
  return TakeContent(
      head, std::string(), [this, id, if_match](FileSink& content, const std::string& type) {
        DocumentRecord record;
        DocumentStore::Outcome outcome = documents_.Replace(
            id, {content.path(), content.written(), false}, type, std::nullopt, if_match, &record);
        if (outcome == DocumentStore::Outcome::kNotFound) {
          return HttpResponse::Error(404, "documentNotFound", "no such document");
        }
        if (outcome == DocumentStore::Outcome::kPreconditionFailed) {
          return HttpResponse::Error(412, "preconditionFailed",
                                     "the entity tag does not match the document's");
        }
        content.Keep();
        return EntryAnswer(200, record);
      });
}

Decision ServiceHandler::TakeContent(const RequestHead& head, std::string type,
                                     ContentCommit commit) {
  if (const std::string* value = head.Find("Content-Type")) {
    type = Trim(*value);
    if (!ValidMediaType(type)) {
      return Answer(HttpResponse::Error(400, "badContentType", "Content-Type is malformed"));
    }
  }
  FileSink sink = documents_.NewContentFile();
  if (!sink.ok()) {
    return Answer(HttpResponse::Error(500, "storageError", "cannot create a content file"));
  }
  return Take(
      std::make_unique<FileBodyExchange>(std::move(sink), options_.max_upload_bytes,
                                         [commit = std::move(commit), type](FileSink& content) {
                                           try {
                                             return commit(content, type);
                                           } catch (const std::exception& error) {
                                             return InternalError(error);
                                           }
                                         }));
}

HttpResponse ServiceHandler::Delete(const std::string& id, const RequestHead& head) {
  switch (documents_.Delete(id, IfMatch(head))) {
    case DocumentStore::Outcome::kNotFound:
      return HttpResponse::Error(404, "documentNotFound", "no such document");
    case DocumentStore::Outcome::kPreconditionFailed:
      return HttpResponse::Error(412, "preconditionFailed",
                                 "the entity tag does not match the document's");
    case DocumentStore::Outcome::kOk:
      break;
  }
  return HttpResponse();
}

Decision ServiceHandler::OpenSession(const RequestHead& head, const std::string& document_id) {
  const std::string* length = head.Find("X-Upload-Content-Length");
  std::uint64_t total = 0;
  if (length == nullptr || !ParseDecimal(Trim(*length), &total)) {
    return Answer(HttpResponse::Error(400, "badUploadLength",
                                      "X-Upload-Content-Length must be a decimal byte count"));
  }
  if (total > options_.max_upload_bytes) {
    return Answer(HttpResponse::Error(413, "contentTooLarge",
                                      "the announced length is larger than the server accepts"));
  }
  std::string type;
  if (const std::string* value = head.Find("X-Upload-Content-Type")) {
    type = Trim(*value);
    if (!type.empty() && !ValidMediaType(type)) {
      return Answer(
          HttpResponse::Error(400, "badContentType", "X-Upload-Content-Type is malformed"));
    }
  }
  if (!document_id.empty()) {
    std::optional<DocumentRecord> current = documents_.Find(document_id);
    if (!current) {
      return Answer(HttpResponse::Error(404, "documentNotFound", "no such document"));
    }
    std::optional<std::string> if_match = IfMatch(head);
    if (if_match && !DocumentStore::EtagMatches(*if_match, current->etag)) {
      return Answer(HttpResponse::Error(412, "preconditionFailed",
                                        "the entity tag does not match the document's"));
    }
  }
  if (head.content_length && *head.content_length > kMaxMetadataBytes) {
    return Answer(HttpResponse::Error(413, "metadataTooLarge", "the metadata is too large"));
  }
  if (!head.has_body()) return Answer(StartSession(document_id, std::string(), type, total));
  return Take(std::make_unique<MemoryBodyExchange>(
      kMaxMetadataBytes, [this, document_id, type, total](const std::string& metadata) {
        return StartSession(document_id, metadata, type, total);
      }));
}

HttpResponse ServiceHandler::StartSession(const std::string& document_id,
                                          const std::string& metadata, const std::string& type,
                                          std::uint64_t total) {
  std::optional<std::string> title;
  if (metadata.find_first_not_of(" \t\r\n") != std::string::npos) {
    pugi::xml_document doc;
    pugi::xml_parse_result parsed = doc.load_buffer(metadata.data(), metadata.size());
    pugi::xml_node root = doc.document_element();
    if (!parsed || LocalName(root.name()) != "entry") {
      return HttpResponse::Error(400, "badMetadata", "the metadata is not an Atom entry");
    }
    for (pugi::xml_node child : root.children()) {
      if (child.type() == pugi::node_element && LocalName(child.name()) == "title") {
        title = child.text().get();
        break;
      }
    }
    if (title && !ValidTitle(*title)) {
      return HttpResponse::Error(400, "badMetadata", "the title is not valid text");
    }
  }
  try {
    std::string id = sessions_.Open(document_id, title, type, total);
    HttpResponse response;
    response.Set("Location", urls_.Session(id));
    return response;
  } catch (const std::exception& error) {
    return InternalError(error);
  }
}

Decision ServiceHandler::SessionPut(const std::string& session_id, const RequestHead& head) {
  std::size_t ranges = head.Count("Content-Range");
  if (ranges == 0) {
    return Answer(HttpResponse::Error(400, "missingContentRange", "Content-Range is required"));
  }
  std::optional<ContentRange> range;
  if (ranges == 1) range = ContentRange::Parse(*head.Find("Content-Range"));
  if (!range) {
    return Answer(HttpResponse::Error(400, "badContentRange", "Content-Range is malformed"));
  }
  if (head.chunked) {
    return Answer(
        HttpResponse::Error(411, "lengthRequired", "chunks must be sent with a Content-Length"));
  }
  std::uint64_t body = head.content_length.value_or(0);
  if (body != range->length()) {
    return Answer(HttpResponse::Error(400, "badContentLength",
                                      "the body length differs from the Content-Range"));
  }

  UploadSessionRecord session;
  SessionClaim claim;
  switch (sessions_.Claim(session_id, &session, &claim)) {
    case UploadSessionStore::ClaimResult::kUnknown:
      return Answer(HttpResponse::Error(404, "sessionNotFound", "no such upload session"));
    case UploadSessionStore::ClaimResult::kBusy:
      return Answer(
          HttpResponse::Error(409, "sessionBusy", "another request is using this upload session"));
    case UploadSessionStore::ClaimResult::kOk:
      break;
  }
  if (range->total() != session.total) {
    return Answer(HttpResponse::Error(400, "badContentRange",
                                      "the total length differs from the announced length"));
  }
  // A session that holds everything (its last answer was lost) finishes now; a status query
  // or a chunk that starts beyond what is held stores nothing.
  if (session.held >= session.total || range->status_query() || range->first() > session.held) {
    return Answer(SessionState(session));
  }
  return Take(std::make_unique<SessionChunkExchange>(
      sessions_, session, std::move(claim), range->first(), range->length(),
      [this](const UploadSessionRecord& state) { return SessionState(state); }));
}

HttpResponse ServiceHandler::SessionState(const UploadSessionRecord& session) {
  if (session.held >= session.total) return FinishSession(session);
  HttpResponse response;
  response.status = 308;
  if (std::optional<std::string> range = faults_.RangeFor(session.held)) {
    response.Set("Range", *range);
  }
  return response;
}

HttpResponse ServiceHandler::FinishSession(const UploadSessionRecord& session) {
  try {
    DocumentStore::ContentSource source{sessions_.PartPath(session.id), session.total, true};
    auto remove_session = [this, &session] { sessions_.RemoveRow(session.id); };
    if (session.document_id.empty()) {
      DocumentRecord record = documents_.Create(
          source, session.title.value_or(kUntitled),
          session.content_type.empty() ? std::string(kOctetStream) : session.content_type,
          remove_session);
      sessions_.RemoveFile(session.id);
      HttpResponse response = EntryAnswer(201, record);
      response.Set("Location", urls_.Edit(record.id));
      return response;
    }
    DocumentRecord record;
    DocumentStore::Outcome outcome =
        documents_.Replace(session.document_id, source, session.content_type, session.title,
                           std::nullopt, &record, remove_session);
    if (outcome != DocumentStore::Outcome::kOk) {
      sessions_.Remove(session.id);
      return HttpResponse::Error(404, "documentNotFound",
                                 "the document of this upload no longer exists");
    }
    sessions_.RemoveFile(session.id);
    return EntryAnswer(200, record);
  } catch (const std::exception& error) {
    return InternalError(error);
  }
}

HttpResponse ServiceHandler::Admin(const std::string& id, const std::string& action) {
  std::optional<bool> starred, removed;
  if (action == "star") {
    starred = true;
  } else if (action == "unstar") {
    starred = false;
  } else if (action == "trash") {
    removed = true;
  } else if (action == "restore") {
    removed = false;
  } else {
    return HttpResponse::Error(404, "notFound", "unknown action: star, unstar, trash, restore");
  }
  DocumentRecord record;
  if (documents_.SetFlags(id, starred, removed, &record) != DocumentStore::Outcome::kOk) {
    return HttpResponse::Error(404, "documentNotFound", "no such document");
  }
  return EntryAnswer(200, record);
}

HttpResponse ServiceHandler::EntryAnswer(int status, const DocumentRecord& record) const {
  HttpResponse response;
  response.status = status;
  response.Set("Content-Type", kAtom);
  response.Set("ETag", record.etag);
  response.body = feed_writer_.Entry(record);
  return response;
}

}  // namespace quire_server
