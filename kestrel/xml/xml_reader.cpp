#include "kestrel/xml/xml_reader.h"

#include <pugixml.hpp>

#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace kestrel {

// Holds every node and attribute of one document in a few large blocks from the memory manager, so
// that a document costs a handful of allocations instead of one per node.
class XmlReader::Arena {
 public:
  Arena() = default;
  ~Arena() {
    nodes_.Destroy();
    attributes_.Destroy();
  }
  XmlNode* NewNode() { return nodes_.Allocate(1); }
  XmlAttribute* NewAttributes(std::size_t count) { return attributes_.Allocate(count); }

 private:
  template <typename T>
  class Pool {
   public:
    T* Allocate(std::size_t count) {
      if (head_ == nullptr || head_->capacity - head_->used < count) {
        std::size_t capacity = head_ == nullptr ? 64 : head_->capacity * 2;
        if (capacity > 4096) capacity = 4096;
        if (capacity < count) capacity = count;
        void* memory = MemoryManager::Default()->Malloc(sizeof(Block) + capacity * sizeof(T));
        head_ = ::new (memory) Block{head_, capacity, 0};
      }
      T* items = head_->items() + head_->used;
      for (std::size_t i = 0; i < count; ++i) ::new (items + i) T();
      head_->used += count;
      return items;
    }
    void Destroy() {
      while (head_ != nullptr) {
        Block* next = head_->next;
        for (std::size_t i = 0; i < head_->used; ++i) head_->items()[i].~T();
        MemoryManager::Default()->Free(head_);
        head_ = next;
      }
    }

   private:
    struct alignas(alignof(T) > 16 ? alignof(T) : 16) Block {
      Block* next;
      std::size_t capacity;
      std::size_t used;
      T* items() { return reinterpret_cast<T*>(this + 1); }
    };
    Block* head_ = nullptr;
  };

  Pool<XmlNode> nodes_;
  Pool<XmlAttribute> attributes_;
};

namespace {

// XML 1.0 allows tab, line feed, carriage return and everything from U+0020 except the surrogates
// and U+FFFE/U+FFFF. Returns the offset of the first byte that breaks UTF-8 or that rule, or -1.
long long FindBadCharacter(const unsigned char* p, std::size_t size) {
  std::size_t i = 0;
  while (i < size) {
    const unsigned char c = p[i];
    if (c < 0x80) {
      if (c < 0x20 && c != 0x09 && c != 0x0A && c != 0x0D) return static_cast<long long>(i);
      ++i;
      continue;
    }
    std::size_t length;
    unsigned int code;
    if ((c & 0xE0) == 0xC0) {
      length = 2;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      code = c & 0x07;
    } else {
      return static_cast<long long>(i);
    }
    if (size - i < length) return static_cast<long long>(i);
    for (std::size_t k = 1; k < length; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return static_cast<long long>(i);
      code = (code << 6) | (p[i + k] & 0x3F);
    }
    const bool overlong = (length == 2 && code < 0x80) || (length == 3 && code < 0x800) ||
                          (length == 4 && code < 0x10000);
    if (overlong || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE ||
        code == 0xFFFF) {
      return static_cast<long long>(i);
    }
    i += length;
  }
  return -1;
}

bool IsXmlChar(unsigned long code) {
  return code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

// Decodes the five predefined entities and character references of `raw` (UTF-8) into a QString.
// Returns false on any other entity reference or a malformed one.
bool DecodeText(const char* raw, QString* out) {
  const char* amp = std::strchr(raw, '&');
  if (amp == nullptr) {
    *out = QString::fromUtf8(raw);
    return true;
  }
  std::string decoded;
  decoded.reserve(std::strlen(raw));
  const char* p = raw;
  while (amp != nullptr) {
    decoded.append(p, static_cast<std::size_t>(amp - p));
    const char* semicolon = std::strchr(amp, ';');
    if (semicolon == nullptr) return false;
    const std::string name(amp + 1, static_cast<std::size_t>(semicolon - amp - 1));
    if (name == "lt") {
      decoded += '<';
    } else if (name == "gt") {
      decoded += '>';
    } else if (name == "amp") {
      decoded += '&';
    } else if (name == "apos") {
      decoded += '\'';
    } else if (name == "quot") {
      decoded += '"';
    } else if (name.size() >= 2 && name[0] == '#') {
      const bool hex = name[1] == 'x';
      const std::string digits = name.substr(hex ? 2 : 1);
      if (digits.empty() || digits.size() > 8) return false;
      unsigned long code = 0;
      for (char d : digits) {
        int v;
        if (d >= '0' && d <= '9') {
          v = d - '0';
        } else if (hex && d >= 'a' && d <= 'f') {
          v = d - 'a' + 10;
        } else if (hex && d >= 'A' && d <= 'F') {
          v = d - 'A' + 10;
        } else {
          return false;
        }
        code = code * (hex ? 16 : 10) + static_cast<unsigned long>(v);
      }
      if (!IsXmlChar(code)) return false;
      const char32_t c32 = static_cast<char32_t>(code);
      decoded += QString::fromUcs4(&c32, 1).toStdString();
    } else {
      return false;  // an entity that a DTD would have to define: never expanded
    }
    p = semicolon + 1;
    amp = std::strchr(p, '&');
  }
  decoded.append(p);
  *out = QString::fromStdString(decoded);
  return true;
}

}  // namespace

XmlReader::XmlReader(const QByteArray& document) : arena_(new Arena) {
  Parse(document.constData(), static_cast<std::size_t>(document.size()));
}

XmlReader::XmlReader(const char* data, std::size_t size) : arena_(new Arena) { Parse(data, size); }

XmlReader::~XmlReader() { delete arena_; }

void XmlReader::Fail(const char* message, long long offset) {
  errors_occurred_ = true;
  root_ = nullptr;
  error_message_ = QString::fromLatin1(message);
  error_offset_ = offset;
  delete arena_;
  arena_ = new Arena;
}

void XmlReader::Parse(const char* data, std::size_t size) {
  if (data == nullptr) size = 0;
  std::size_t start = 0;
  if (size >= 3 && std::memcmp(data, "\xEF\xBB\xBF", 3) == 0) start = 3;  // UTF-8 byte-order mark
  const long long bad =
      FindBadCharacter(reinterpret_cast<const unsigned char*>(data) + start, size - start);
  if (bad >= 0) return Fail("character not allowed in XML", bad + static_cast<long long>(start));

  pugi::xml_document document;
  const unsigned int flags = pugi::parse_cdata | pugi::parse_wconv_attribute | pugi::parse_eol |
                             pugi::parse_doctype | pugi::parse_ws_pcdata | pugi::parse_fragment;
  const pugi::xml_parse_result result =
      document.load_buffer(data + start, size - start, flags, pugi::encoding_utf8);
  if (!result) return Fail(result.description(), static_cast<long long>(result.offset + start));

  pugi::xml_node element;
  for (pugi::xml_node child = document.first_child(); child; child = child.next_sibling()) {
    switch (child.type()) {
      case pugi::node_element:
        if (element) return Fail("content after the root element", -1);
        element = child;
        break;
      case pugi::node_doctype:
        return Fail("document type declarations are not accepted", -1);
      case pugi::node_pcdata:
        for (const char* c = child.value(); *c; ++c) {
          if (*c != ' ' && *c != '\t' && *c != '\n' && *c != '\r') {
            return Fail("text outside the root element", -1);
          }
        }
        break;
      case pugi::node_cdata:
        return Fail("CDATA outside the root element", -1);
      default:
        break;  // comments, processing instructions, the XML declaration
    }
  }
  if (!element) return Fail("no root element", -1);

  // Walk the tree without recursion, so that deep nesting cannot exhaust the stack.
  struct Frame {
    pugi::xml_node source;
    XmlNode* node;
    int depth;
  };
  std::vector<Frame> stack;
  root_ = arena_->NewNode();
  stack.push_back({element, root_, 1});
  while (!stack.empty()) {
    const Frame frame = stack.back();
    stack.pop_back();
    if (frame.depth > kMaxDepth) return Fail("elements nested too deeply", -1);
    XmlNode* node = frame.node;
    node->name = QString::fromUtf8(frame.source.name());

    int attribute_count = 0;
    for (pugi::xml_attribute a = frame.source.first_attribute(); a; a = a.next_attribute()) {
      ++attribute_count;
    }
    if (attribute_count > 0) {
      XmlAttribute* attributes = arena_->NewAttributes(static_cast<std::size_t>(attribute_count));
      int i = 0;
      for (pugi::xml_attribute a = frame.source.first_attribute(); a; a = a.next_attribute(), ++i) {
        attributes[i].name = QString::fromUtf8(a.name());
        if (!DecodeText(a.value(), &attributes[i].value)) {
          return Fail("undefined or malformed entity reference", -1);
        }
      }
      node->attributes = attributes;
      node->attribute_count = attribute_count;
    }

    XmlNode* previous = nullptr;
    for (pugi::xml_node child = frame.source.first_child(); child; child = child.next_sibling()) {
      if (child.type() == pugi::node_pcdata) {
        QString piece;
        if (!DecodeText(child.value(), &piece)) {
          return Fail("undefined or malformed entity reference", -1);
        }
        node->text += piece;
      } else if (child.type() == pugi::node_cdata) {
        node->text += QString::fromUtf8(child.value());
      } else if (child.type() == pugi::node_element) {
        XmlNode* created = arena_->NewNode();
        if (previous == nullptr) {
          node->first_child = created;
        } else {
          previous->next_sibling = created;
        }
        previous = created;
        stack.push_back({child, created, frame.depth + 1});
      }
    }
  }
}

}  // namespace kestrel
