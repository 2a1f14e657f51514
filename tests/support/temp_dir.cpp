#include "tests/support/temp_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace quire_test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quire-test-XXXXXX").string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (::mkdtemp(name.data()) != nullptr) path_ = name.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

}  // namespace quire_test
