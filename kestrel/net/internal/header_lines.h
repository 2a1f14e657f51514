/// @file
/// The header lines of an HTTP exchange as the libcurl transport writes and reads them: pure
/// functions, free of sockets and of libcurl's state.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrel/net/http_request.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/request_header.h"

namespace kestrel {
namespace net {
namespace internal {

/// The request header lines in the form libcurl takes them, in sending order, for `headers` sent
/// with `method`:
/// - each caller record becomes one line; a record whose value is empty is written "Name;",
///   libcurl's spelling for a line with an empty value ("Name:" would tell it not to send Name);
/// - then the lines that stop libcurl from adding its own: "Accept:" unless `default_headers` is
///   kStandard, "Expect:" (never 100-continue) and, on POST, "Content-Type:" (never a form type),
///   each only when the caller sent no line of that name (any case);
/// - then "Connection: close" when `keep_alive` is false and the caller sent no Connection line.
/// Returns false, leaving `*lines` unspecified, when a record must not be sent: a reserved type,
/// CR, LF or NUL anywhere, no name before a colon, or a leading blank (which would continue the
/// previous line).
bool WriteRequestHeaderLines(const RequestHeaderList& headers,
                             NetworkRequest::Info::DefaultHeaders default_headers,
                             HttpRequest::MethodType method, bool keep_alive,
                             std::vector<QByteArray>* lines);

/// One line of a response's header block, as the server sent it without its line end.
struct ResponseHeaderLine {
  /// What the line is.
  enum Kind {
    kEnd,           ///< the blank line that ends the header block
    kStatusLine,    ///< "HTTP/..." starting a new response (a 1xx interim one is replaced)
    kContinuation,  ///< an obsolete continuation of the previous line (leading blank)
    kField,         ///< "Name: value"
    kOther,         ///< a line without a colon
  };
  /// What the line is.
  Kind kind = kEnd;
  /// kStatusLine: the status number, 0 when none can be read.
  int status_code = 0;
  /// kField: whether the name is Content-Length (any case).
  bool is_content_length = false;
  /// kField with is_content_length: the value, or -1 when it is not 1 to 18 decimal digits.
  std::int64_t content_length = -1;
  /// With `want_text` only, the line as the request keeps it, bytes taken as Latin-1: kField
  /// "Name: value" (blanks around the name's end and the value trimmed); kOther the whole line;
  /// kContinuation the text after its leading blanks (null when there is none). Null otherwise.
  QString text;
};

/// Reads one header line of `size` bytes at `data` (a trailing CR and LF are ignored). `want_text`
/// false leaves ResponseHeaderLine::text null, for a request that does not keep header lines.
ResponseHeaderLine ReadResponseHeaderLine(const char* data, std::size_t size, bool want_text);

}  // namespace internal
}  // namespace net
}  // namespace kestrel
