// The small file that lets an interrupted upload continue: the upload session's address and the
// identity of the file being sent. It is written as soon as the service has opened the session and
// removed when the upload ends.
#pragma once

#include <QString>
#include <cstdint>

namespace quire_cli {

class UploadState {
 public:
  // $XDG_STATE_HOME/quire/upload.json, or ~/.local/state/quire/upload.json when XDG_STATE_HOME is
  // unset.
  static QString DefaultPath();

  // Reads the state at `path`. Returns false when there is no such file. Throws CliFailure (local
  // failure) when the file exists but cannot be read or is not a state file.
  bool Load(const QString& path);
  // Writes the state to `path` in one step (a temporary file renamed into place), readable only by
  // its owner: the session address is itself the credential for the session. Creates the folder.
  // Throws CliFailure (local failure) when it cannot be written.
  void Save(const QString& path) const;
  // Removes the file at `path` if there is one.
  static void Remove(const QString& path);

  // Where the chunks go: the address that the service gave in "Location".
  QString session_url;
  // The file: absolute path, size in bytes, modification time in milliseconds since the epoch.
  QString file_path;
  std::int64_t file_size = 0;
  std::int64_t file_modified_ms = 0;
  // What the upload announced and how it was cut.
  QString content_type;
  QString title;
  std::uint32_t chunk_size = 0;
};

}  // namespace quire_cli
