#include "kestrel/xml/xml_reader.h"

#include <pugixml.hpp>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kestrel/xml/internal/xml_characters.h"
#include "kestrel/xml/internal/xml_string_cache.h"

// Sixteen bytes at a time where SSE2 is there (every x86-64); KESTREL_XML_NO_SSE2 forces the
// portable loops, which the tests also run.
#if defined(__SSE2__) && !defined(KESTREL_XML_NO_SSE2)
#define KESTREL_XML_SSE2 1
#include <emmintrin.h>
#endif

namespace kestrel {
namespace {

using xml_internal::XmlStringCache;

// The document's bytes in UTF-8, copied into memory from the memory manager that pugixml parses in
// place. Zero bytes follow the document so that the string scans below may read sixteen bytes at a
// time from any string start without leaving the block.
class ParseBuffer {
 public:
  static constexpr std::size_t kPadding = 16;

  explicit ParseBuffer(std::size_t capacity)
      : data_(static_cast<char*>(MemoryManager::Default()->Malloc(capacity + kPadding))),
        capacity_(capacity) {}
  ~ParseBuffer() { MemoryManager::Default()->Free(data_); }
  ParseBuffer(const ParseBuffer&) = delete;
  ParseBuffer& operator=(const ParseBuffer&) = delete;

  char* data() const { return data_; }
  std::size_t size() const { return size_; }
  void set_size(std::size_t size) {
    size_ = size;
    std::memset(data_ + size, 0, capacity_ + kPadding - size);
  }
  bool Holds(const char* p) const { return p >= data_ && p <= data_ + size_; }

 private:
  char* data_;
  std::size_t capacity_;
  std::size_t size_ = 0;
};

// A growable byte buffer from the memory manager for text that has to be put together (decoded
// references, text split by child elements or CDATA).
class Scratch {
 public:
  Scratch() = default;
  ~Scratch() { MemoryManager::Default()->Free(data_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  // Makes room for `more` bytes after the current end and returns where they go.
  char* Reserve(std::size_t more) {
    if (capacity_ - size_ < more) {
      std::size_t capacity = std::max<std::size_t>(256, (size_ + more) * 2);
      char* data = static_cast<char*>(MemoryManager::Default()->Malloc(capacity));
      if (size_ > 0) std::memcpy(data, data_, size_);
      MemoryManager::Default()->Free(data_);
      data_ = data;
      capacity_ = capacity;
    }
    return data_ + size_;
  }
  void Append(const char* bytes, std::size_t size) {
    if (size == 0) return;  // an empty piece (e.g. an empty CDATA section) before any storage
    std::memcpy(Reserve(size), bytes, size);
    size_ += size;
  }
  void Grow(std::size_t size) { size_ += size; }
  void Clear() { size_ = 0; }
  const char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

// What a scan found in one string of the parsed buffer.
struct Span {
  const char* data;
  std::size_t size;
  bool has_reference;  // holds '&', so it must be decoded
};

// Scans the zero-terminated string at `p` for its end, for references and for what may not appear
// in it: '<' in an attribute value, "]]>" in text. Returns false and sets *bad at the offending
// byte. Strings of the parse buffer are read sixteen bytes at a time.
template <bool kAttribute>
bool ScanValue(const ParseBuffer& buffer, const char* p, Span* span, const char** bad) {
  span->data = p;
  span->has_reference = false;
  if (*p == '\0') {  // also pugixml's shared empty string, which lies outside the buffer
    span->size = 0;
    return true;
  }
  constexpr char kForbidden = kAttribute ? '<' : ']';
#if defined(KESTREL_XML_SSE2)
  if (buffer.Holds(p)) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i ampersand = _mm_set1_epi8('&');
    const __m128i forbidden = _mm_set1_epi8(kForbidden);
    for (std::size_t i = 0;; i += 16) {
      const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
      unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(
          _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, zero), _mm_cmpeq_epi8(chunk, ampersand)),
                       _mm_cmpeq_epi8(chunk, forbidden))));
      while (mask != 0) {
        const char* at = p + i + static_cast<std::size_t>(__builtin_ctz(mask));
        mask &= mask - 1;
        if (*at == '\0') {
          span->size = static_cast<std::size_t>(at - p);
          return true;
        }
        if (*at == '&') {
          span->has_reference = true;
        } else if (kAttribute || (at[1] == ']' && at[2] == '>')) {
          *bad = at;
          return false;
        }
      }
    }
  }
#else
  (void)buffer;
#endif
  const char* at = p;
  for (; *at != '\0'; ++at) {
    if (*at == '&') {
      span->has_reference = true;
    } else if (*at == kForbidden && (kAttribute || (at[1] == ']' && at[2] == '>'))) {
      *bad = at;
      return false;
    }
  }
  span->size = static_cast<std::size_t>(at - p);
  return true;
}

// The length of the name at `p`, and whether it holds bytes beyond ASCII (pugixml checks the ASCII
// part of a name but takes any such byte as a name character, so those names are checked here).
std::size_t ScanName(const ParseBuffer& buffer, const char* p, bool* non_ascii) {
  *non_ascii = false;
#if defined(KESTREL_XML_SSE2)
  if (*p != '\0' && buffer.Holds(p)) {
    const __m128i zero = _mm_setzero_si128();
    for (std::size_t i = 0;; i += 16) {
      const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
      const unsigned ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, zero)));
      unsigned high = static_cast<unsigned>(_mm_movemask_epi8(chunk));
      if (ends != 0) {
        const unsigned end = static_cast<unsigned>(__builtin_ctz(ends));
        high &= (1u << end) - 1;
        if (high != 0) *non_ascii = true;
        return i + end;
      }
      if (high != 0) *non_ascii = true;
    }
  }
#else
  (void)buffer;
#endif
  std::size_t size = 0;
  for (; p[size] != '\0'; ++size) {
    if (static_cast<unsigned char>(p[size]) >= 0x80) *non_ascii = true;
  }
  return size;
}

// Decodes the references of `span` (the five predefined entities and character references) and
// appends the result to `out`. Returns false and sets *bad at a reference that is malformed, names
// another entity, or denotes a character XML does not allow.
bool AppendDecoded(const Span& span, Scratch* out, const char** bad) {
  // Every reference is at least as long as the UTF-8 it stands for.
  char* target = out->Reserve(span.size);
  char* const start = target;
  const char* p = span.data;
  const char* const end = span.data + span.size;
  while (p < end) {
    const char* amp =
        static_cast<const char*>(std::memchr(p, '&', static_cast<std::size_t>(end - p)));
    if (amp == nullptr) amp = end;
    std::memcpy(target, p, static_cast<std::size_t>(amp - p));
    target += amp - p;
    if (amp == end) break;
    *bad = amp;
    const char* q = amp + 1;
    const std::size_t left = static_cast<std::size_t>(end - q);
    if (left >= 1 && *q == '#') {
      ++q;
      const bool hex = q < end && *q == 'x';
      if (hex) ++q;
      std::uint32_t code = 0;
      const char* digits = q;
      for (; q < end; ++q) {
        unsigned digit;
        const char c = *q;
        if (c >= '0' && c <= '9') {
          digit = static_cast<unsigned>(c - '0');
        } else if (hex && c >= 'a' && c <= 'f') {
          digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (hex && c >= 'A' && c <= 'F') {
          digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
          break;
        }
        code = code * (hex ? 16 : 10) + digit;
        if (code > 0x10FFFF) code = 0x110000;  // stays out of range, whatever follows
      }
      if (q == digits || q == end || *q != ';' || !xml_internal::IsXmlChar(code)) return false;
      target += xml_internal::AppendUtf8(code, target);
      p = q + 1;
      continue;
    }
    char replacement;
    std::size_t length;  // of the name and its ';'
    if (left >= 3 && std::memcmp(q, "lt;", 3) == 0) {
      replacement = '<';
      length = 3;
    } else if (left >= 3 && std::memcmp(q, "gt;", 3) == 0) {
      replacement = '>';
      length = 3;
    } else if (left >= 4 && std::memcmp(q, "amp;", 4) == 0) {
      replacement = '&';
      length = 4;
    } else if (left >= 5 && std::memcmp(q, "apos;", 5) == 0) {
      replacement = '\'';
      length = 5;
    } else if (left >= 5 && std::memcmp(q, "quot;", 5) == 0) {
      replacement = '"';
      length = 5;
    } else {
      return false;  // an entity only a DTD could define (never expanded), or no reference at all
    }
    *target++ = replacement;
    p = q + length;
  }
  out->Grow(static_cast<std::size_t>(target - start));
  return true;
}

bool IsXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool EqualsIgnoringCase(const char* text, const char* lower) {
  for (; *lower != '\0'; ++text, ++lower) {
    char c = *text;
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != *lower) return false;
  }
  return *text == '\0';
}

std::size_t PowerOfTwoAtLeast(std::size_t value, std::size_t low, std::size_t high) {
  std::size_t result = low;
  while (result < value && result < high) result *= 2;
  return result;
}

// Builds the XmlNode tree from pugixml's tree of the same buffer, checking on the way what pugixml
// lets through, and converting each string to a QString once.
class TreeBuilder {
 public:
  TreeBuilder(const ParseBuffer& buffer, XmlArena* arena)
      : buffer_(buffer),
        arena_(arena),
        names_(PowerOfTwoAtLeast(buffer.size() / 2048, 32, 256)),
        values_(PowerOfTwoAtLeast(buffer.size() / 512, 64, 1024)) {}

  // Fills `root` from `element` and everything below it. Returns false on an error, described by
  // error() and error_at().
  bool Build(pugi::xml_node element, XmlNode* root);

  // Checks a comment or a processing instruction, wherever it stands.
  bool CheckMisc(pugi::xml_node misc);

  const char* error() const { return error_; }
  const char* error_at() const { return error_at_; }

 private:
  struct Frame {
    pugi::xml_node source;
    XmlNode* node;
    int depth;
  };

  bool Fill(const Frame& frame);
  bool Name(const char* raw, QString* out);
  bool Value(const Span& span, QString* out, const char* where);
  QString Convert(const char* data, std::size_t size) {
    if (size > XmlStringCache::kMaxLength) return QString::fromUtf8(data, static_cast<int>(size));
    return values_.Get(data, size);
  }
  bool Error(const char* message, const char* at) {
    error_ = message;
    error_at_ = at;
    return false;
  }

  const ParseBuffer& buffer_;
  XmlArena* arena_;
  XmlStringCache names_;
  XmlStringCache values_;
  Scratch scratch_;
  std::vector<Frame, MMAlloc<Frame>> stack_;
  const char* error_ = nullptr;
  const char* error_at_ = nullptr;
};

bool TreeBuilder::Name(const char* raw, QString* out) {
  bool non_ascii;
  const std::size_t size = ScanName(buffer_, raw, &non_ascii);
  if (non_ascii && !xml_internal::IsXmlName(raw, size)) {
    return Error("character not allowed in a name", raw);
  }
  *out = size <= XmlStringCache::kMaxLength ? names_.Get(raw, size)
                                            : QString::fromUtf8(raw, static_cast<int>(size));
  return true;
}

bool TreeBuilder::Value(const Span& span, QString* out, const char* where) {
  if (!span.has_reference) {
    *out = Convert(span.data, span.size);
    return true;
  }
  scratch_.Clear();
  const char* bad = nullptr;
  if (!AppendDecoded(span, &scratch_, &bad)) {
    return Error("undefined entity or malformed reference", bad != nullptr ? bad : where);
  }
  *out = Convert(scratch_.data(), scratch_.size());
  return true;
}

bool TreeBuilder::CheckMisc(pugi::xml_node misc) {
  if (misc.type() == pugi::node_comment) {
    const char* value = misc.value();
    const char* dashes = std::strstr(value, "--");
    if (dashes != nullptr) return Error("\"--\" in a comment", dashes);
    const std::size_t size = std::strlen(value);
    if (size > 0 && value[size - 1] == '-') return Error("comment ends in '-'", value + size - 1);
  } else if (misc.type() == pugi::node_pi) {
    QString ignored;
    if (!Name(misc.name(), &ignored)) return false;
    if (EqualsIgnoringCase(misc.name(), "xml")) {
      return Error("reserved processing instruction target", misc.name());
    }
  }
  return true;
}

bool TreeBuilder::Fill(const Frame& frame) {
  XmlNode* node = frame.node;
  if (!Name(frame.source.name(), &node->name)) return false;

  XmlAttribute* attributes = nullptr;
  int count = 0;
  for (pugi::xml_attribute a = frame.source.first_attribute(); a; a = a.next_attribute()) {
    attributes = arena_->AppendAttribute(attributes, count);
    XmlAttribute& attribute = attributes[count++];
    node->attributes = attributes;  // kept current, so that the tree is whole on every return
    node->attribute_count = count;
    if (!Name(a.name(), &attribute.name)) return false;
    Span span;
    const char* bad = nullptr;
    if (!ScanValue<true>(buffer_, a.value(), &span, &bad)) {
      return Error("'<' in an attribute value", bad);
    }
    if (!Value(span, &attribute.value, a.value())) return false;
  }

  // The element's text is its character data and CDATA sections joined in document order; the
  // common case of one piece without references is converted straight from the buffer.
  Span single{nullptr, 0, false};
  bool single_pending = false;  // `single` is the only piece so far and not yet in the scratch
  int pieces = 0;
  XmlNode* previous = nullptr;
  const std::size_t first_frame = stack_.size();
  for (pugi::xml_node child = frame.source.first_child(); child; child = child.next_sibling()) {
    const pugi::xml_node_type type = child.type();
    if (type == pugi::node_element) {
      XmlNode* created = arena_->NewNode();
      if (previous == nullptr) {
        node->first_child = created;
      } else {
        previous->next_sibling = created;
      }
      previous = created;
      stack_.push_back({child, created, frame.depth + 1});
    } else if (type == pugi::node_pcdata || type == pugi::node_cdata) {
      Span span;
      const char* bad = nullptr;
      if (type == pugi::node_pcdata) {
        if (!ScanValue<false>(buffer_, child.value(), &span, &bad)) {
          return Error("\"]]>\" in text", bad);
        }
      } else {
        span = {child.value(), std::strlen(child.value()), false};
      }
      if (pieces == 0 && !span.has_reference) {
        single = span;
        single_pending = true;
      } else {
        if (pieces == 0 || single_pending) scratch_.Clear();
        if (single_pending) scratch_.Append(single.data, single.size);
        single_pending = false;
        if (span.has_reference) {
          if (!AppendDecoded(span, &scratch_, &bad)) {
            return Error("undefined entity or malformed reference", bad);
          }
        } else {
          scratch_.Append(span.data, span.size);
        }
      }
      ++pieces;
    } else if (!CheckMisc(child)) {
      return false;
    }
  }
  if (single_pending) {
    node->text = Convert(single.data, single.size);
  } else if (pieces > 0) {
    node->text = Convert(scratch_.data(), scratch_.size());
  }
  // The children were pushed in document order; reversed, they come off the stack in that order.
  std::reverse(stack_.begin() + static_cast<std::ptrdiff_t>(first_frame), stack_.end());
  return true;
}

bool TreeBuilder::Build(pugi::xml_node element, XmlNode* root) {
  // Depth first without recursion, so that deep nesting cannot exhaust the stack.
  stack_.push_back({element, root, 1});
  while (!stack_.empty()) {
    const Frame frame = stack_.back();
    stack_.pop_back();
    if (frame.depth > XmlReader::kMaxDepth) {
      return Error("elements nested too deeply", frame.source.name());
    }
    if (!Fill(frame)) return false;
  }
  return true;
}

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
  ParseBuffer buffer(encoding == Encoding::kUtf16 ? body / 2 * 3 + 3 : body);
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

  TreeBuilder builder(buffer, &arena_);
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
