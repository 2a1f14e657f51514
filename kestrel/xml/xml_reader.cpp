#include "kestrel/xml/xml_reader.h"

#include <pugixml.hpp>

#include <algorithm>
#include <climits>
#include <cstring>

#include "kestrel/xml/internal/xml_characters.h"
#include "kestrel/xml/internal/xml_parse_buffer.h"
#include "kestrel/xml/internal/xml_tree_builder.h"

namespace kestrel {
namespace {

using xml_internal::EqualsIgnoringCase;

bool IsXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// "1." and digits.
bool IsVersionNumber(const char* text) {
  if (text[0] != '1' || text[1] != '.' || text[2] == '\0') return false;
  for (text += 2; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

}  // namespace

XmlReader::XmlReader(const QByteArray& document)
    : XmlReader(document.constData(), static_cast<std::size_t>(document.size())) {}

XmlReader::XmlReader(const char* data, std::size_t size) { Parse(data, size); }

XmlReader::~XmlReader() = default;

void XmlReader::Fail(const char* message, long long offset) {
  errors_occurred_ = true;
  root_ = nullptr;
  error_message_ = QString::fromLatin1(message);
  error_offset_ = offset;
  arena_.Clear();
}

void XmlReader::Parse(const char* data, std::size_t size) {
  if (data == nullptr) size = 0;
  // Strings of the tree are sized in int by Qt 5; a document is kept well below that.
  if (size > static_cast<std::size_t>(INT_MAX / 4)) return Fail("document too large", -1);
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);

  // The encoding: UTF-8, with or without its byte-order mark, or UTF-16 with its mark.
  enum class Encoding { kUtf8, kUtf16 } encoding = Encoding::kUtf8;
  std::size_t skipped = 0;
  bool utf16_big_endian = false;
  if (size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
    skipped = 3;
  } else if (size >= 2 &&
             ((bytes[0] == 0xFF && bytes[1] == 0xFE) || (bytes[0] == 0xFE && bytes[1] == 0xFF))) {
    encoding = Encoding::kUtf16;
    utf16_big_endian = bytes[0] == 0xFE;
    skipped = 2;
  }
  const std::size_t body = size - skipped;
  xml_internal::XmlParseBuffer buffer(encoding == Encoding::kUtf16 ? body / 2 * 3 + 3 : body);
  bool non_ascii = false;
  long long bad;
  if (encoding == Encoding::kUtf16) {
    const long long written =
        xml_internal::Utf16ToUtf8(bytes + skipped, body, utf16_big_endian, buffer.data(), &bad);
    if (written < 0) return Fail("malformed UTF-16", bad + static_cast<long long>(skipped));
    buffer.set_size(static_cast<std::size_t>(written));
    bad = xml_internal::CopyCheckedUtf8(buffer.data(), buffer.size(), buffer.data(), &non_ascii);
    if (bad >= 0) return Fail("character not allowed in XML", bad);
  } else {
    buffer.set_size(body);
    bad = xml_internal::CopyCheckedUtf8(data + skipped, body, buffer.data(), &non_ascii);
    if (bad >= 0) {
      return Fail("character not allowed in XML", bad + static_cast<long long>(skipped));
    }
  }
  const long long offset_base = encoding == Encoding::kUtf8 ? static_cast<long long>(skipped) : 0;
  auto offset_of = [&](const char* at) {
    return at != nullptr && buffer.Holds(at) ? offset_base + (at - buffer.data()) : -1LL;
  };

  // After the root element come only comments, processing instructions and white space, so a
  // document ends in '>' and white space. pugixml lets a lone '<' at the very end pass after text.
  std::size_t end = buffer.size();
  while (end > 0 && IsXmlSpace(buffer.data()[end - 1])) --end;
  if (end > 0 && buffer.data()[end - 1] != '>') {
    return Fail("document cut short", offset_base + static_cast<long long>(end - 1));
  }

  // pugixml checks the structure: tags, their nesting and matching, attribute syntax, comments,
  // CDATA sections and processing instructions. It decodes nothing (references are decoded, and
  // checked, by the tree builder) and is told to keep what the checks below need to see. It is
  // given the terminating zero too: parsing in place, it takes the last byte as its own end mark.
  pugi::xml_document document;
  const unsigned int flags = pugi::parse_cdata | pugi::parse_wconv_attribute | pugi::parse_eol |
                             pugi::parse_ws_pcdata | pugi::parse_fragment | pugi::parse_doctype |
                             pugi::parse_comments | pugi::parse_pi | pugi::parse_declaration;
  const pugi::xml_parse_result result =
      document.load_buffer_inplace(buffer.data(), buffer.size() + 1, flags, pugi::encoding_utf8);
  if (!result) {
    // The offset may be that of the terminating zero, just past the document.
    const auto at = std::min(static_cast<std::size_t>(result.offset), buffer.size());
    return Fail(result.description(), offset_base + static_cast<long long>(at));
  }

  xml_internal::XmlTreeBuilder builder(buffer, &arena_);
  pugi::xml_node element;
  for (pugi::xml_node child = document.first_child(); child; child = child.next_sibling()) {
    switch (child.type()) {
      case pugi::node_element:
        if (element) return Fail("content after the root element", offset_of(child.name()));
        element = child;
        break;
      case pugi::node_doctype:
        return Fail("document type declarations are not accepted", offset_of(child.value()));
      case pugi::node_pcdata:
        for (const char* c = child.value(); *c != '\0'; ++c) {
          if (!IsXmlSpace(*c)) return Fail("text outside the root element", offset_of(c));
        }
        break;
      case pugi::node_cdata:
        return Fail("CDATA outside the root element", offset_of(child.value()));
      case pugi::node_declaration: {
        // Only at the very start, "version" first, then "encoding" and "standalone" if present.
        if (child != document.first_child() || child.name() != buffer.data() + 2 ||
            std::strcmp(child.name(), "xml") != 0) {
          return Fail("XML declaration not at the start", offset_of(child.name()));
        }
        pugi::xml_attribute a = child.first_attribute();
        if (!a || std::strcmp(a.name(), "version") != 0 || !IsVersionNumber(a.value())) {
          return Fail("malformed XML declaration", offset_of(child.name()));
        }
        a = a.next_attribute();
        if (a && std::strcmp(a.name(), "encoding") == 0) {
          const char* name = a.value();
          const bool supported = encoding == Encoding::kUtf16
                                     ? EqualsIgnoringCase(name, "utf-16")
                                     : EqualsIgnoringCase(name, "utf-8") ||
                                           (!non_ascii && (EqualsIgnoringCase(name, "us-ascii") ||
                                                           EqualsIgnoringCase(name, "ascii")));
          if (!supported) return Fail("unsupported encoding", offset_of(name));
          a = a.next_attribute();
        }
        if (a && std::strcmp(a.name(), "standalone") == 0) {
          if (std::strcmp(a.value(), "yes") != 0 && std::strcmp(a.value(), "no") != 0) {
            return Fail("malformed XML declaration", offset_of(a.value()));
          }
          a = a.next_attribute();
        }
        if (a) return Fail("malformed XML declaration", offset_of(a.name()));
        break;
      }
      default:  // comments and processing instructions
        if (!builder.CheckMisc(child)) return Fail(builder.error(), offset_of(builder.error_at()));
        break;
    }
  }
  if (!element) return Fail("no root element", -1);

  root_ = arena_.NewNode();
  if (!builder.Build(element, root_)) return Fail(builder.error(), offset_of(builder.error_at()));
}

}  // namespace kestrel
