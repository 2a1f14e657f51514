#include "tools/quire-server/url_layout.h"

#include <stdexcept>
#include <vector>

#include "quire/services/endpoints.h"

namespace quire_server {
namespace {

constexpr std::string_view kUploadPrefix = "/upload";
constexpr std::string_view kSessionsPrefix = "/upload/sessions/";
constexpr std::string_view kAdminPrefix = "/emulator/documents/";

// Splits "scheme://host/path" into host and path.
void SplitUrl(std::string_view url, std::string* host, std::string* path) {
  std::size_t scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) throw std::logic_error("not an absolute URL");
  std::string_view rest = url.substr(scheme_end + 3);
  std::size_t slash = rest.find('/');
  *host = std::string(rest.substr(0, slash));
  *path = slash == std::string_view::npos ? "/" : std::string(rest.substr(slash));
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::vector<std::string_view> Segments(std::string_view rest) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t slash = rest.find('/', start);
    parts.push_back(rest.substr(start, slash == std::string_view::npos ? slash : slash - start));
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return parts;
}

}  // namespace

UrlLayout::UrlLayout(bool https) : scheme_(https ? "https" : "http") {
  SplitUrl(kestrel::quire::UserInfoUrl, &api_host_, &userinfo_path_);
  SplitUrl(kestrel::quire::DocsFeedUrl, &docs_host_, &feed_path_);
}

std::string UrlLayout::UserInfo() const { return scheme_ + "://" + api_host_ + userinfo_path_; }
std::string UrlLayout::Feed() const { return scheme_ + "://" + docs_host_ + feed_path_; }
std::string UrlLayout::Batch() const { return Feed() + "/batch"; }
std::string UrlLayout::ResumableCreate() const {
  return scheme_ + "://" + docs_host_ + std::string(kUploadPrefix) + feed_path_;
}
std::string UrlLayout::Edit(const std::string& id) const { return Feed() + "/" + id; }
std::string UrlLayout::Content(const std::string& id) const { return Edit(id) + "/content"; }
std::string UrlLayout::Acl(const std::string& id) const { return Edit(id) + "/acl"; }
std::string UrlLayout::Revisions(const std::string& id) const { return Edit(id) + "/revisions"; }
std::string UrlLayout::ResumableEdit(const std::string& id) const {
  return ResumableCreate() + "/" + id;
}
std::string UrlLayout::Session(const std::string& session_id) const {
  return scheme_ + "://" + docs_host_ + std::string(kSessionsPrefix) + session_id;
}

bool UrlLayout::ValidId(std::string_view id) {
  if (id.empty() || id.size() > 128) return false;
  for (char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

UrlLayout::Route UrlLayout::Match(std::string_view target) const {
  Route route;
  std::size_t end = target.find_first_of("?#");
  std::string_view path = target.substr(0, end);
  if (StartsWith(path, "http://") || StartsWith(path, "https://")) {
    std::size_t slash = path.find('/', path.find("://") + 3);
    path = slash == std::string_view::npos ? std::string_view("/") : path.substr(slash);
  }
  if (path.empty() || path[0] != '/') return route;
  // Nothing the emulator serves has dot segments, empty segments or escapes in its path; such a
  // path is an attempt to reach something else.
  for (std::string_view segment : Segments(path.substr(1))) {
    if (segment == "." || segment == ".." || segment.find('%') != std::string_view::npos ||
        segment.find('\\') != std::string_view::npos) {
      route.kind = RouteKind::kInvalidId;
      return route;
    }
  }

  if (path == userinfo_path_) {
    route.kind = RouteKind::kUserInfo;
    return route;
  }
  if (path == feed_path_ || path == feed_path_ + "/") {
    route.kind = RouteKind::kFeed;
    return route;
  }
  std::string upload_feed = std::string(kUploadPrefix) + feed_path_;
  if (path == upload_feed) {
    route.kind = RouteKind::kResumableCreate;
    return route;
  }

  auto id_route = [&route](std::string_view id, RouteKind kind) {
    if (!ValidId(id)) {
      route.kind = RouteKind::kInvalidId;
    } else {
      route.kind = kind;
      route.id = std::string(id);
    }
    return route;
  };

  if (StartsWith(path, upload_feed + "/")) {
    std::vector<std::string_view> parts = Segments(path.substr(upload_feed.size() + 1));
    if (parts.size() != 1) return route;
    return id_route(parts[0], RouteKind::kResumableEdit);
  }
  if (StartsWith(path, kSessionsPrefix)) {
    std::vector<std::string_view> parts = Segments(path.substr(kSessionsPrefix.size()));
    if (parts.size() != 1) return route;
    return id_route(parts[0], RouteKind::kSession);
  }
  if (StartsWith(path, kAdminPrefix)) {
    std::vector<std::string_view> parts = Segments(path.substr(kAdminPrefix.size()));
    if (parts.size() != 2) return route;
    route.action = std::string(parts[1]);
    return id_route(parts[0], RouteKind::kAdmin);
  }
  if (StartsWith(path, feed_path_ + "/")) {
    std::vector<std::string_view> parts = Segments(path.substr(feed_path_.size() + 1));
    if (parts.size() == 1 && parts[0] == "batch") {
      route.kind = RouteKind::kBatch;
      return route;
    }
    if (parts.size() == 1) return id_route(parts[0], RouteKind::kEntry);
    if (parts.size() == 2 && parts[1] == "content") return id_route(parts[0], RouteKind::kContent);
    if (parts.size() == 2 && parts[1] == "acl") return id_route(parts[0], RouteKind::kAcl);
    if (parts.size() == 2 && parts[1] == "revisions") {
      return id_route(parts[0], RouteKind::kRevisions);
    }
    if (!ValidId(parts[0])) route.kind = RouteKind::kInvalidId;
    return route;
  }
  return route;
}

}  // namespace quire_server
