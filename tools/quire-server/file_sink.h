// Writes a stream of bytes into a file at a moving position, starting the kernel's write-back as it
// goes so that the final flush to disk is short. Used for new content (a fresh file in the
// temporary folder, removed again unless kept) and for the chunks of an upload session (an existing
// file, written at the chunk's offset).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/quire-server/unique_fd.h"

namespace quire_server {

class FileSink {
 public:
  // Creates `path`, which must not exist. The file is removed again when the sink goes away,
  // unless Keep() was called. Check ok() afterwards.
  static FileSink CreateNew(const std::string& path);
  // Opens the existing file `path` for writing from `offset` on. The file stays in any case.
  static FileSink OpenAt(const std::string& path, std::uint64_t offset);

  FileSink(FileSink&& other) noexcept;
  FileSink& operator=(FileSink&&) = delete;
  FileSink(const FileSink&) = delete;
  ~FileSink();

  bool ok() const { return error_ == 0; }
  // The errno of the first failure, 0 while none occurred.
  int error() const { return error_; }
  const std::string& path() const { return path_; }
  // Where the next byte goes.
  std::uint64_t position() const { return position_; }
  // Bytes written through this sink.
  std::uint64_t written() const { return written_; }

  // Writes all of `data` at the current position. False (and error() set) on failure.
  bool Write(const char* data, std::size_t size);
  // Makes everything written so far durable (data and size). False on failure.
  bool Sync();
  // The file is kept when the sink goes away (it was published under another name, or it is the
  // content of an upload session).
  void Keep() { remove_ = false; }

 private:
  FileSink(std::string path, UniqueFd fd, std::uint64_t offset, bool remove);

  std::string path_;
  UniqueFd fd_;
  std::uint64_t position_;
  std::uint64_t written_ = 0;
  std::uint64_t writeback_from_;
  bool remove_;
  int error_ = 0;
};

}  // namespace quire_server
