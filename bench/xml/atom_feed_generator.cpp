#include "atom_feed_generator.h"

#include <cstdio>
#include <string>

#include "quire/model/link_relations.h"

namespace quire_bench::xml {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the relation constants

const char* const kTitles[] = {
    "Budget &amp; plan &lt;2024&gt;",
    "Gr\xC3\xB6\xC3\x9F"
    "e der Dateien \xE2\x84\x96",
    "Minutes of the &quot;weekly&quot; meeting",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\x96\x87\xE6\x9B\xB8",
    "Caf&#xE9; menu &#8212; summer",
    "Quarterly report",
    "Notes \xF0\x9F\x93\x9D draft &apos;v2&apos;",
    "Trip itinerary: Z&#252;rich &#x2192; Lyon",
};
const char* const kTypes[] = {"text/html", "application/pdf", "text/plain",
                              "application/vnd.oasis.opendocument.text"};
const char* const kAuthors[] = {"Ann Example", "Bj\xC3\xB6rn M\xC3\xBCller", "Chlo\xC3\xA9 Martin",
                                "Dev Patel"};

constexpr char kAtom[] = "application/atom+xml";
// Where resumable uploads begin: new documents here, new content of one below it.
constexpr char kCreateSession[] =
    "https://docs.quire.example/feeds/upload/create-session/default/private/full";

// A deterministic pseudo-random generator, so that every run parses the same bytes.
unsigned long long Next(unsigned long long* state) {
  *state ^= *state << 13;
  *state ^= *state >> 7;
  *state ^= *state << 17;
  return *state;
}

std::string Token(unsigned long long* state, int length) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string token;
  for (int i = 0; i < length; ++i) token += kAlphabet[Next(state) % 64];
  return token;
}

std::string Timestamp(unsigned long long* state) {
  char text[40];
  std::snprintf(text, sizeof text, "2024-%02d-%02dT%02d:%02d:%02d.%03dZ",
                static_cast<int>(1 + Next(state) % 12), static_cast<int>(1 + Next(state) % 28),
                static_cast<int>(Next(state) % 24), static_cast<int>(Next(state) % 60),
                static_cast<int>(Next(state) % 60), static_cast<int>(Next(state) % 1000));
  return text;
}

// "<link rel='REL' type='TYPE' href='HREF'/>" on a line of its own, indented by `indent`.
void AppendLink(std::string* out, const char* indent, const std::string& rel,
                const std::string& type, const std::string& href) {
  *out += indent;
  *out += "<link rel='" + rel + "' type='" + type + "' href='" + href + "'/>\n";
}

// An entry's "<category scheme='SCHEME' term='TERM' label='LABEL'/>" line.
void AppendCategory(std::string* out, const std::string& scheme, const std::string& term,
                    const char* label) {
  *out += "    <category scheme='" + scheme + "' term='" + term + "' label='" + label + "'/>\n";
}

// An entry's "<qr:feedLink rel='REL' href='HREF'/>" line.
void AppendFeedLink(std::string* out, const char* rel, const std::string& href) {
  *out += "    <qr:feedLink rel='";
  *out += rel;
  *out += "' href='" + href + "'/>\n";
}

void AppendEntry(std::string* out, int index, unsigned long long* state) {
  const std::string id = Token(state, 44);
  const std::string full = "https://docs.quire.example/feeds/default/private/full/document%3A" + id;
  const char* type = kTypes[index % 4];
  const std::string schema = SchemaNamespace;
  const std::string labels = kLabelsScheme;
  std::string& s = *out;
  if (index % 2 == 0) {
    s += "  <entry qr:etag='\"" + Token(state, 20) + ".\"'>\n";
  } else {
    s += "  <entry qr:etag=\"W/&quot;" + Token(state, 20) + ".&quot;\">\n";
  }
  s += "    <id>https://docs.quire.example/feeds/id/document%3A" + id + "</id>\n";
  s += "    <published>" + Timestamp(state) + "</published>\n";
  s += "    <updated>" + Timestamp(state) + "</updated>\n";
  AppendCategory(out, schema + "/g/2005#kind", schema + "/docs/2007#document", "document");
  if (index % 3 == 0) AppendCategory(out, labels, kStarredLabelTerm, "starred");
  AppendCategory(out, labels, labels + "#viewed", "viewed");
  s += "    <title>";
  s += kTitles[index % 8];
  s += " #" + std::to_string(index) + "</title>\n";
  s += "    <content type='";
  s += type;
  s += "' src='https://docs.quire.example/feeds/download/documents/export?id=" + id +
       "&amp;format=html'/>\n";
  AppendLink(out, "    ", "alternate", "text/html",
             "https://docs.quire.example/document/d/" + id + "/edit");
  AppendLink(out, "    ", "self", kAtom, full);
  AppendLink(out, "    ", "edit", kAtom, full + "/" + Token(state, 8));
  AppendLink(out, "    ", "edit-media", type,
             "https://docs.quire.example/feeds/default/media/document%3A" + id);
  AppendLink(out, "    ", kResumableEditMediaRel, kAtom,
             std::string(kCreateSession) + "/document%3A" + id);
  s += "    <author>\n      <name>";
  s += kAuthors[index % 4];
  s += "</name>\n      <email>user" + std::to_string(index % 97) +
       "@mail.example</email>\n    </author>\n";
  AppendFeedLink(out, kAclFeedRel, full + "/acl");
  AppendFeedLink(out, kRevisionsFeedRel, full + "/revisions");
  if (index % 7 == 0) s += "    <docs:removed/>\n";
  s += "  </entry>\n";
}

}  // namespace

QByteArray GenerateAtomFeed(int entries) {
  unsigned long long state = 0x9E3779B97F4A7C15ULL;
  std::string s;
  s.reserve(static_cast<std::size_t>(entries) * 2600 + 2048);
  s += "<?xml version='1.0' encoding='UTF-8'?>\n";
  s += "<feed xmlns='http://www.w3.org/2005/Atom' "
       "xmlns:openSearch='http://a9.com/-/spec/opensearch/1.1/' xmlns:docs='";
  s += SchemaNamespace;
  s += "/docs/2007' xmlns:qr='";
  s += SchemaNamespace;
  s += "/g/2005' qr:etag='W/\"" + Token(&state, 20) + ".\"'>\n";
  s += "  <id>https://docs.quire.example/feeds/default/private/full</id>\n";
  s += "  <updated>" + Timestamp(&state) + "</updated>\n";
  s += "  <title>Available Documents - user@mail.example</title>\n";
  const std::string base = "https://docs.quire.example/feeds/default/private/full";
  AppendLink(&s, "  ", "alternate", "text/html", "https://docs.quire.example/");
  AppendLink(&s, "  ", kFeedRel, kAtom, base);
  AppendLink(&s, "  ", kPostRel, kAtom, base);
  AppendLink(&s, "  ", kBatchRel, kAtom, base + "/batch");
  AppendLink(&s, "  ", kResumableCreateMediaRel, kAtom, kCreateSession);
  AppendLink(&s, "  ", "self", kAtom, base);
  s += "  <author>\n    <name>user</name>\n    <email>user@mail.example</email>\n  </author>\n";
  s += "  <openSearch:totalResults>" + std::to_string(entries) + "</openSearch:totalResults>\n";
  s += "  <openSearch:startIndex>1</openSearch:startIndex>\n";
  s += "  <openSearch:itemsPerPage>" + std::to_string(entries) + "</openSearch:itemsPerPage>\n";
  for (int i = 0; i < entries; ++i) AppendEntry(&s, i, &state);
  s += "</feed>\n";
  return QByteArray(s.data(), static_cast<int>(s.size()));
}

}  // namespace quire_bench::xml
