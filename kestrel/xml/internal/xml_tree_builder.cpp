#include "kestrel/xml/internal/xml_tree_builder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kestrel/xml/internal/xml_characters.h"
#include "kestrel/xml/xml_reader.h"

// Sixteen bytes at a time where SSE2 is there (every x86-64); KESTREL_XML_NO_SSE2 forces the
// portable loops, which the tests also run.
#if defined(__SSE2__) && !defined(KESTREL_XML_NO_SSE2)
#define KESTREL_XML_SSE2 1
#include <emmintrin.h>
#endif

namespace kestrel {
namespace xml_internal {
namespace {

// Scans the zero-terminated string at `p` for its end, for references and for what may not appear
// in it: '<' in an attribute value, "]]>" in text. Returns false and sets *bad at the offending
// byte. Strings of the parse buffer are read sixteen bytes at a time.
template <bool kAttribute>
bool ScanValue(const XmlParseBuffer& buffer, const char* p, XmlTreeBuilder::Span* span,
               const char** bad) {
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
std::size_t ScanName(const XmlParseBuffer& buffer, const char* p, bool* non_ascii) {
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

// The five entities XML predefines: the name with its ';', its length, and the character it
// stands for.
struct PredefinedEntity {
  const char* name;
  std::size_t length;
  char character;
};
constexpr PredefinedEntity kPredefinedEntities[] = {
    {"lt;", 3, '<'}, {"gt;", 3, '>'}, {"amp;", 4, '&'}, {"apos;", 5, '\''}, {"quot;", 5, '"'}};

// Decodes the references of `span` (the five predefined entities and character references) and
// appends the result to `out`. Returns false and sets *bad at a reference that is malformed, names
// another entity, or denotes a character XML does not allow.
bool AppendDecoded(const XmlTreeBuilder::Span& span, XmlScratch* out, const char** bad) {
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
      if (q == digits || q == end || *q != ';' || !IsXmlChar(code)) return false;
      target += AppendUtf8(code, target);
      p = q + 1;
      continue;
    }
    const PredefinedEntity* entity = nullptr;
    for (const PredefinedEntity& candidate : kPredefinedEntities) {
      if (left >= candidate.length && std::memcmp(q, candidate.name, candidate.length) == 0) {
        entity = &candidate;
        break;
      }
    }
    // Else an entity only a DTD could define (never expanded), or no reference at all.
    if (entity == nullptr) return false;
    *target++ = entity->character;
    p = q + entity->length;
  }
  out->Grow(static_cast<std::size_t>(target - start));
  return true;
}

std::size_t PowerOfTwoAtLeast(std::size_t value, std::size_t low, std::size_t high) {
  std::size_t result = low;
  while (result < value && result < high) result *= 2;
  return result;
}
}  // namespace

XmlTreeBuilder::XmlTreeBuilder(const XmlParseBuffer& buffer, XmlArena* arena)
    : buffer_(buffer),
      arena_(arena),
      names_(PowerOfTwoAtLeast(buffer.size() / 2048, 32, 256)),
      values_(PowerOfTwoAtLeast(buffer.size() / 512, 64, 1024)) {}

QString XmlTreeBuilder::Convert(const char* data, std::size_t size) {
  if (size > XmlStringCache::kMaxLength) return QString::fromUtf8(data, static_cast<int>(size));
  return values_.Get(data, size);
}

bool XmlTreeBuilder::Name(const char* raw, QString* out) {
  bool non_ascii;
  const std::size_t size = ScanName(buffer_, raw, &non_ascii);
  if (non_ascii && !IsXmlName(raw, size)) {
    return Error("character not allowed in a name", raw);
  }
  *out = size <= XmlStringCache::kMaxLength ? names_.Get(raw, size)
                                            : QString::fromUtf8(raw, static_cast<int>(size));
  return true;
}

bool XmlTreeBuilder::Value(const Span& span, QString* out, const char* where) {
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

bool XmlTreeBuilder::CheckMisc(pugi::xml_node misc) {
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

bool XmlTreeBuilder::Fill(const Frame& frame) {
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

bool XmlTreeBuilder::Build(pugi::xml_node element, XmlNode* root) {
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
}  // namespace xml_internal
}  // namespace kestrel
