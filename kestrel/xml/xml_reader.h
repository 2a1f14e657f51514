/// @file
/// Builds a tree of XmlNode from a byte buffer.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_arena.h"
#include "kestrel/xml/xml_node.h"

namespace kestrel {

/// Builds a tree of XmlNode from a byte buffer.
///
/// The reader is strict and closed. A document that is not well-formed XML 1.0 is reported through
/// GetErrorsOccurred(): mismatched or unclosed tags, truncation, content after the root element,
/// characters XML does not allow (control characters, broken UTF-8, surrogates, U+FFFE/U+FFFF),
/// references to entities other than the five predefined ones, malformed character references,
/// unquoted attribute values, '<' in attribute values, "]]>" in text, "--" in comments, a misplaced
/// or malformed XML declaration. Document type declarations are refused, so no entity is ever
/// expanded from a DTD and nothing is ever fetched: the reader never touches the network or the
/// file system. Nesting deeper than kMaxDepth is an error, not a crash; no part of the reader
/// recurses.
///
/// Deliberately lenient, because the documents we read rely on it: an attribute written twice on
/// one element is kept twice, in document order, and readers take the first.
///
/// Names are kept exactly as written, prefix included; namespaces are not resolved. Whitespace-only
/// text is kept as text.
///
/// Threading: a reader and its tree are used by one thread at a time; separate readers are
/// independent.
class KESTREL_EXPORT XmlReader {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// The deepest nesting of elements accepted; deeper documents are errors.
  static constexpr int kMaxDepth = 1024;

  /// Parses `document` (UTF-8, or UTF-16 with a byte-order mark; a UTF-8 byte-order mark is
  /// skipped) at once. The bytes are only read during the constructor.
  explicit XmlReader(const QByteArray& document);
  /// Parses the `size` bytes at `data`, like the constructor above.
  XmlReader(const char* data, std::size_t size);
  /// Destroys the tree: every node and attribute that the reader handed out.
  ~XmlReader();
  XmlReader(const XmlReader&) = delete;
  XmlReader& operator=(const XmlReader&) = delete;

  /// True when the document was not well-formed (or was refused); the tree is then empty.
  bool GetErrorsOccurred() const { return errors_occurred_; }
  /// The document element, or null when there is none (errors, or an empty document). The tree
  /// belongs to the reader and dies with it.
  XmlNode* GetRootNode() const { return root_; }
  /// A short description of the first error, for diagnostics; empty when there was none.
  const QString& error_message() const { return error_message_; }
  /// The byte offset in the document at which the error was found (in its UTF-8 form when it came
  /// as UTF-16), or -1 when it has no single place.
  long long error_offset() const { return error_offset_; }

 private:
  void Parse(const char* data, std::size_t size);
  void Fail(const char* message, long long offset);

  XmlArena arena_;
  XmlNode* root_ = nullptr;
  bool errors_occurred_ = false;
  QString error_message_;
  long long error_offset_ = -1;
};

}  // namespace kestrel
