#include "kestrel/net/internal/header_lines.h"

#include <cstring>

namespace kestrel {
namespace net {
namespace internal {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t'; }

// Whether `name` (not NUL-terminated, `length` bytes) is `lower` ignoring ASCII case.
bool NameIs(const char* name, std::size_t length, const char* lower) {
  if (std::strlen(lower) != length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    char c = name[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != lower[i]) return false;
  }
  return true;
}

// Header names the transport fills in itself unless the caller sends them.
struct CallerHeaders {
  bool accept = false;
  bool expect = false;
  bool content_type = false;
  bool connection = false;
};

// The caller's record as the line libcurl takes, or a null array for a record that must not be
// sent. Notes in `seen` which of the transport's own names it carries.
QByteArray CallerLine(const RequestHeader& header, CallerHeaders* seen) {
  if (header.type != 0) return QByteArray();
  QByteArray line = header.value.isNull()
                        ? header.name.toUtf8()
                        : (header.name + QLatin1String(": ") + header.value).toUtf8();
  const char* data = line.constData();
  const std::size_t size = static_cast<std::size_t>(line.size());
  if (size == 0 || IsSpace(data[0])) return QByteArray();
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == '\r' || data[i] == '\n' || data[i] == '\0') return QByteArray();
  }
  const char* colon = static_cast<const char*>(std::memchr(data, ':', size));
  if (colon == nullptr || colon == data) return QByteArray();
  std::size_t name_length = static_cast<std::size_t>(colon - data);
  while (name_length > 0 && IsSpace(data[name_length - 1])) --name_length;
  if (name_length == 0) return QByteArray();
  seen->accept |= NameIs(data, name_length, "accept");
  seen->expect |= NameIs(data, name_length, "expect");
  seen->content_type |= NameIs(data, name_length, "content-type");
  seen->connection |= NameIs(data, name_length, "connection");

  const char* value = colon + 1;
  while (value < data + size && IsSpace(*value)) ++value;
  if (value == data + size) {
    // libcurl takes "Name:" with nothing after it as "do not send Name"; "Name;" is its spelling
    // for a line with an empty value.
    line.truncate(static_cast<int>(name_length));
    line.append(';');
  }
  return line;
}

// Reads the value of a Content-Length line: 1 to 18 decimal digits, else -1.
std::int64_t ContentLength(const char* value, const char* end) {
  const std::size_t length = static_cast<std::size_t>(end - value);
  if (length == 0 || length > 18) return -1;
  std::int64_t parsed = 0;
  for (const char* p = value; p < end; ++p) {
    if (*p < '0' || *p > '9') return -1;
    parsed = parsed * 10 + (*p - '0');
  }
  return parsed;
}

}  // namespace

bool WriteRequestHeaderLines(const RequestHeaderList& headers,
                             NetworkRequest::Info::DefaultHeaders default_headers,
                             HttpRequest::MethodType method, bool keep_alive,
                             std::vector<QByteArray>* lines) {
  CallerHeaders seen;
  for (const RequestHeader& header : headers) {
    QByteArray line = CallerLine(header, &seen);
    if (line.isNull()) return false;
    lines->push_back(std::move(line));
  }
  // Lines libcurl would add of its own: "Accept: */*" only for the standard set, never
  // "Expect: 100-continue" (one round trip less per upload), never a form Content-Type on POST.
  if (!seen.accept && default_headers != NetworkRequest::Info::kStandard) {
    lines->push_back(QByteArrayLiteral("Accept:"));
  }
  if (!seen.expect) lines->push_back(QByteArrayLiteral("Expect:"));
  if (!seen.content_type && method == HttpRequest::kPost) {
    lines->push_back(QByteArrayLiteral("Content-Type:"));
  }
  if (!seen.connection && !keep_alive) lines->push_back(QByteArrayLiteral("Connection: close"));
  return true;
}

ResponseHeaderLine ReadResponseHeaderLine(const char* data, std::size_t size, bool want_text) {
  ResponseHeaderLine line;
  std::size_t length = size;
  while (length > 0 && (data[length - 1] == '\n' || data[length - 1] == '\r')) --length;
  if (length == 0) return line;  // kEnd

  if (length >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
    line.kind = ResponseHeaderLine::kStatusLine;
    const char* code = static_cast<const char*>(std::memchr(data, ' ', length));
    if (code != nullptr) {
      for (++code; code < data + length && *code >= '0' && *code <= '9'; ++code) {
        line.status_code = line.status_code * 10 + (*code - '0');
      }
    }
    return line;
  }

  if (IsSpace(data[0])) {
    line.kind = ResponseHeaderLine::kContinuation;
    std::size_t start = 0;
    while (start < length && IsSpace(data[start])) ++start;
    if (want_text && start < length) {
      line.text = QString::fromLatin1(data + start, static_cast<int>(length - start));
    }
    return line;
  }

  const char* colon = static_cast<const char*>(std::memchr(data, ':', length));
  if (colon == nullptr) {
    line.kind = ResponseHeaderLine::kOther;
    if (want_text) line.text = QString::fromLatin1(data, static_cast<int>(length));
    return line;
  }
  line.kind = ResponseHeaderLine::kField;
  std::size_t name_length = static_cast<std::size_t>(colon - data);
  while (name_length > 0 && IsSpace(data[name_length - 1])) --name_length;
  const char* value = colon + 1;
  const char* end = data + length;
  while (value < end && IsSpace(*value)) ++value;
  while (end > value && IsSpace(end[-1])) --end;
  const int value_length = static_cast<int>(end - value);
  if (NameIs(data, name_length, "content-length")) {
    line.is_content_length = true;
    line.content_length = ContentLength(value, end);
  }
  if (want_text) {
    line.text.reserve(static_cast<int>(name_length) + 2 + value_length);
    line.text.append(QLatin1String(data, static_cast<int>(name_length)));
    line.text.append(QLatin1String(": "));
    line.text.append(QLatin1String(value, value_length));
  }
  return line;
}

}  // namespace internal
}  // namespace net
}  // namespace kestrel
