// A fresh folder under the system's temporary directory, removed with everything in it when the
// object goes away.
#pragma once

#include <string>

namespace quire_test {

class TempDir {
 public:
  // Makes the folder; path() is empty when that failed.
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace quire_test
