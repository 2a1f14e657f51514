// Reading addresses out of a feed: every entry carries five of them, and parsing a whole address
// with QUrl costs several times more than the rest of the entry. The addresses of one feed share a
// few beginnings ("https://docs.quire.example"), so the scheme and authority are parsed once per
// thread and beginning, and each address copies that parsed beginning and sets only its own path
// and query. QUrl's parser sets those two from the same characters in the same way when it parses
// a whole address, so the result is the same QUrl that QUrl::fromEncoded(text.toLatin1()) gives;
// anything unusual (characters beyond ASCII, a fragment, no path) takes that road itself.
#include <QStringView>
#include <QUrl>
#include <cstddef>

#include "quire/model/internal/xml_lookup.h"

namespace kestrel {
namespace quire {
namespace internal {
namespace {

// A parsed beginning "scheme://authority", and whether it may serve as the base of the addresses
// that start with it.
struct Base {
  QString prefix;
  QUrl url;
  bool usable = false;
};

constexpr std::size_t kBases = 4;

struct BaseCache {
  Base bases[kBases];
  std::size_t next = 0;  // the slot that a new beginning takes

  const Base& Find(QStringView prefix) {
    for (const Base& base : bases) {
      if (!base.prefix.isNull() && QStringView(base.prefix) == prefix) return base;
    }
    Base& base = bases[next];
    next = (next + 1) % kBases;
    base.prefix = prefix.toString();
    base.url = QUrl::fromEncoded(base.prefix.toLatin1());
    // Only a valid beginning with a scheme and an authority, and nothing after them, is a base.
    base.usable = base.url.isValid() && !base.url.scheme().isEmpty() &&
                  !base.url.authority().isEmpty() && base.url.path().isEmpty() &&
                  !base.url.hasQuery() && !base.url.hasFragment();
    return base;
  }
};

thread_local BaseCache cache;

}  // namespace

QUrl UrlFromAttribute(const QString& text) {
  if (text.isEmpty()) return QUrl();
  const auto whole = [&text] { return QUrl::fromEncoded(text.toLatin1()); };  // the long road
  const QChar* chars = text.constData();
  const qsizetype size = text.size();
  // Only ASCII: then text.toLatin1() holds the same characters, and QUrl reads them unchanged.
  qsizetype separator = -1;  // the "://" after the scheme
  qsizetype path = -1;       // the '/' that starts the path
  qsizetype query = -1;      // the '?' that starts the query
  for (qsizetype i = 0; i < size; ++i) {
    const char16_t c = chars[i].unicode();
    if (c >= 0x80 || c == '#') return whole();
    if (separator < 0) {
      if (c == ':') {
        if (i + 2 >= size || chars[i + 1] != QLatin1Char('/') || chars[i + 2] != QLatin1Char('/')) {
          return whole();
        }
        separator = i;
        i += 2;
      } else if (c == '/' || c == '?') {
        return whole();
      }
    } else if (path < 0) {
      if (c == '?') return whole();
      if (c == '/') path = i;
    } else if (query < 0 && c == '?') {
      query = i;
    }
  }
  // A path is needed after a non-empty authority; an empty query ("...?") keeps the long road.
  if (separator <= 0 || path < 0 || path == separator + 3 || query == size - 1) {
    return whole();
  }
  const Base& base = cache.Find(QStringView(chars, path));
  if (!base.usable) return whole();
  QUrl url = base.url;
  if (query < 0) {
    url.setPath(text.mid(path), QUrl::TolerantMode);
  } else {
    url.setPath(text.mid(path, query - path), QUrl::TolerantMode);
    url.setQuery(text.mid(query + 1), QUrl::TolerantMode);
  }
  return url;
}

}  // namespace internal
}  // namespace quire
}  // namespace kestrel
