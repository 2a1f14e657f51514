// The addresses the emulator hands out and the routes it recognises. The host names and the two
// fixed endpoints come from the library's own constants, so both sides agree by construction; every
// other address is derived from the feed's. Requests are routed by path alone, so one listener
// serves both hosts.
//
//   <userinfo>                                   user information (API host)
//   <feed>                                       the feed; POST creates a document
//   <feed>/batch                                 batch address (not provided)
//   <feed>/<id>                                  a document's edit address
//   <feed>/<id>/content                          its content
//   <feed>/<id>/acl, <feed>/<id>/revisions       its access-control and revisions feeds
//   /upload<feed>                                opens a resumable upload of a new document
//   /upload<feed>/<id>                           opens a resumable upload of new content
//   /upload/sessions/<session>                   an upload session
//   /emulator/documents/<id>/<action>            test and demo controls (star, trash, ...)
#pragma once

#include <string>
#include <string_view>

namespace quire_server {

class UrlLayout {
 public:
  enum class RouteKind {
    kUnknown,
    kInvalidId,  // a malformed identifier, or a path that tries to leave its folder
    kUserInfo,
    kFeed,
    kBatch,
    kEntry,
    kContent,
    kAcl,
    kRevisions,
    kResumableCreate,
    kResumableEdit,
    kSession,
    kAdmin,
  };

  struct Route {
    RouteKind kind = RouteKind::kUnknown;
    std::string id;
    std::string action;
  };

  // `https` selects the scheme of every address handed out.
  explicit UrlLayout(bool https);

  const std::string& api_host() const { return api_host_; }
  const std::string& docs_host() const { return docs_host_; }

  std::string UserInfo() const;
  std::string Feed() const;
  std::string Batch() const;
  std::string ResumableCreate() const;
  std::string Edit(const std::string& id) const;
  std::string Content(const std::string& id) const;
  std::string Acl(const std::string& id) const;
  std::string Revisions(const std::string& id) const;
  std::string ResumableEdit(const std::string& id) const;
  std::string Session(const std::string& session_id) const;

  // Routes a request target (origin form, or absolute form on either host).
  Route Match(std::string_view target) const;

  // Identifiers are 1 to 128 characters of letters, digits, '-' and '_'.
  static bool ValidId(std::string_view id);

 private:
  std::string scheme_;
  std::string api_host_;
  std::string userinfo_path_;
  std::string docs_host_;
  std::string feed_path_;
};

}  // namespace quire_server
