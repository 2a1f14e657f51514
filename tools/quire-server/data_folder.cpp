#include "tools/quire-server/data_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace quire_server {
namespace {

void MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
  }
}

}  // namespace

std::unique_ptr<DataFolder> DataFolder::Open(const std::string& path) {
  std::string root = path;
  bool temporary = root.empty();
  if (temporary) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/quire-server-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot create a temporary folder: " +
                               std::string(std::strerror(errno)));
    }
    root = name.data();
  } else {
    std::error_code ec;
    std::filesystem::create_directories(root, ec);
    if (ec) throw std::runtime_error("cannot create " + root + ": " + ec.message());
    root = std::filesystem::absolute(root).lexically_normal().string();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
  }

  std::string lock_path = root + "/lock";
  UniqueFd lock(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock.valid()) {
    throw std::runtime_error("cannot open " + lock_path + ": " + std::strerror(errno));
  }
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("the data folder " + root + " is in use by another quire-server");
  }
  std::unique_ptr<DataFolder> folder(new DataFolder(root, temporary, std::move(lock)));
  MakeDirectory(folder->ContentDir());
  MakeDirectory(folder->UploadsDir());
  MakeDirectory(folder->TmpDir());
  MakeDirectory(folder->TlsDir());
  if (!SyncDirectory(root)) throw std::runtime_error("cannot sync " + root);
  return folder;
}

DataFolder::DataFolder(std::string root, bool temporary, UniqueFd lock)
    : root_(std::move(root)), temporary_(temporary), lock_(std::move(lock)) {}

DataFolder::~DataFolder() {
  if (temporary_) {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
}

bool DataFolder::SyncDirectory(const std::string& dir) {
  UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) return false;
  return ::fsync(fd.get()) == 0;
}

}  // namespace quire_server
