// The folder that holds everything the emulator keeps: the database, document content, partial
// uploads, temporary files and the TLS certificate. A persistent folder is locked against a second
// server; a temporary one is made on start and removed when this object goes away.
#pragma once

#include <memory>
#include <string>

#include "tools/quire-server/unique_fd.h"

namespace quire_server {

class DataFolder {
 public:
  // Opens `path` (created when missing), or a fresh temporary folder when `path` is empty.
  // Throws std::runtime_error when the folder cannot be made or another server holds it.
  static std::unique_ptr<DataFolder> Open(const std::string& path);
  ~DataFolder();
  DataFolder(const DataFolder&) = delete;
  DataFolder& operator=(const DataFolder&) = delete;

  const std::string& root() const { return root_; }
  bool temporary() const { return temporary_; }
  std::string DatabasePath() const { return root_ + "/quire.db"; }
  // Published, immutable content files, named by the database.
  std::string ContentDir() const { return root_ + "/content"; }
  // One file per open upload session.
  std::string UploadsDir() const { return root_ + "/uploads"; }
  // Files being written; emptied at every start.
  std::string TmpDir() const { return root_ + "/tmp"; }
  std::string TlsDir() const { return root_ + "/tls"; }

  // Makes the entries of a directory (creations, renames, removals) durable. Returns false on
  // failure.
  static bool SyncDirectory(const std::string& dir);

 private:
  DataFolder(std::string root, bool temporary, UniqueFd lock);

  std::string root_;
  bool temporary_;
  UniqueFd lock_;
};

}  // namespace quire_server
