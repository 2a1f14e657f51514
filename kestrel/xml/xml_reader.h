// Builds a tree of XmlNode from a byte buffer.
//
// The reader is strict and closed: a document that is not well-formed XML 1.0 (mismatched or
// unclosed tags, content after the root element, characters XML does not allow, undefined entity
// references, truncation) is reported through GetErrorsOccurred(). Document type declarations are
// refused, so no entity is ever expanded from a DTD and nothing is ever fetched: the reader never
// touches the network or the file system. Nesting deeper than kMaxDepth is an error, not a crash.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_node.h"

namespace kestrel {

class KESTREL_EXPORT XmlReader {
  KESTREL_MANAGED_ALLOCATION

 public:
  static constexpr int kMaxDepth = 1024;

  // Parses `document` (UTF-8, or UTF-16/32 with a byte-order mark) at once. The bytes are only read
  // during the constructor.
  explicit XmlReader(const QByteArray& document);
  XmlReader(const char* data, std::size_t size);
  ~XmlReader();
  XmlReader(const XmlReader&) = delete;
  XmlReader& operator=(const XmlReader&) = delete;

  // True when the document was not well-formed (or was refused); the tree is then empty.
  bool GetErrorsOccurred() const { return errors_occurred_; }
  // The document element, or null when there is none (errors, or an empty document).
  XmlNode* GetRootNode() const { return root_; }
  // A short description of the first error, for diagnostics; empty when there was none.
  const QString& error_message() const { return error_message_; }
  // The offset in the input at which the error was found, or -1.
  long long error_offset() const { return error_offset_; }

 private:
  class Arena;
  void Parse(const char* data, std::size_t size);
  void Fail(const char* message, long long offset);

  Arena* arena_;
  XmlNode* root_ = nullptr;
  bool errors_occurred_ = false;
  QString error_message_;
  long long error_offset_ = -1;
};

}  // namespace kestrel
