// Builds the reader's XmlNode tree from pugixml's tree of the same buffer.
#pragma once

#include <pugixml.hpp>

#include <QString>
#include <cstddef>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/internal/xml_parse_buffer.h"
#include "kestrel/xml/internal/xml_scratch.h"
#include "kestrel/xml/internal/xml_string_cache.h"
#include "kestrel/xml/xml_arena.h"
#include "kestrel/xml/xml_node.h"

namespace kestrel {
namespace xml_internal {

/// Builds the XmlNode tree from pugixml's tree of the same buffer, checking on the way what pugixml
/// lets through (names beyond ASCII, references, '<' in attribute values, "]]>" in text, comments
/// and processing instructions), and converting each string to a QString once. No part of it
/// recurses: nesting deeper than XmlReader::kMaxDepth is an error.
class XmlTreeBuilder {
 public:
  /// What a scan found in one string of the parsed buffer.
  struct Span {
    const char* data;    ///< the string's first byte
    std::size_t size;    ///< its length in bytes
    bool has_reference;  ///< it holds '&', so it must be decoded
  };

  /// Builds into `arena` from strings of `buffer`; both must outlive the builder.
  XmlTreeBuilder(const XmlParseBuffer& buffer, XmlArena* arena);

  /// Fills `root` from `element` and everything below it. Returns false on an error, described by
  /// error() and error_at().
  bool Build(pugi::xml_node element, XmlNode* root);

  /// Checks a comment or a processing instruction, wherever it stands. Returns false on an error,
  /// described by error() and error_at().
  bool CheckMisc(pugi::xml_node misc);

  /// The description of the error found, or null.
  const char* error() const { return error_; }
  /// Where in the buffer the error was found, or null when it has no single place.
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
  QString Convert(const char* data, std::size_t size);
  bool Error(const char* message, const char* at) {
    error_ = message;
    error_at_ = at;
    return false;
  }

  const XmlParseBuffer& buffer_;
  XmlArena* arena_;
  XmlStringCache names_;
  XmlStringCache values_;
  XmlScratch scratch_;
  std::vector<Frame, MMAlloc<Frame>> stack_;
  const char* error_ = nullptr;
  const char* error_at_ = nullptr;
};

}  // namespace xml_internal
}  // namespace kestrel
