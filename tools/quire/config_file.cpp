#include "tools/quire/config_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>

#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

std::string Trim(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return std::string();
  const std::size_t end = text.find_last_not_of(" \t\r");
  return text.substr(begin, end - begin + 1);
}

}  // namespace

QString ConfigFile::DefaultPath(const QString& xdg_config_home, const QString& home) {
  if (!xdg_config_home.isEmpty() && QDir::isAbsolutePath(xdg_config_home)) {
    return xdg_config_home + QStringLiteral("/quire/config");
  }
  if (home.isEmpty()) return QString();
  return home + QStringLiteral("/.config/quire/config");
}

ConfigFile ConfigFile::Read(const QString& path) {
  ConfigFile config;
  config.path_ = path;
  if (path.isEmpty()) return config;
  const std::string where = path.toStdString();
  struct stat info {};
  const QByteArray native = QFile::encodeName(path);
  if (::stat(native.constData(), &info) != 0) return config;
  config.exists_ = true;
  config.readable_by_others_ =
      (info.st_mode & (S_IRWXG | S_IRWXO)) != 0 || info.st_uid != ::getuid();
  QFile file(path);
  if (!S_ISREG(info.st_mode) || !file.open(QIODevice::ReadOnly)) {
    throw CliFailure(ExitCode::kUsage, "cannot read the configuration file " + where + " (" +
                                           file.errorString().toStdString() +
                                           "); make it a readable file or remove it");
  }
  // A configuration is a few lines; anything much larger is not one.
  const QByteArray bytes = file.read(1024 * 1024);
  Profile* current = nullptr;
  int number = 0;
  for (const QByteArray& raw : bytes.split('\n')) {
    ++number;
    const std::string line = Trim(raw.toStdString());
    const std::string at = where + " line " + std::to_string(number);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      const std::string name = Trim(line.substr(1, line.size() >= 2 ? line.size() - 2 : 0));
      if (line.back() != ']' || name.empty() || name.find_first_of("[]= \t") != std::string::npos) {
        throw CliFailure(ExitCode::kUsage, at + " is not a profile heading; write [NAME] with a " +
                                               "name without blanks, brackets or =");
      }
      if (config.Find(name) != nullptr) {
        throw CliFailure(ExitCode::kUsage, at + " names the profile " + name +
                                               " a second time; merge the two sections");
      }
      config.profiles_.push_back({name, number, {}});
      current = &config.profiles_.back();
      continue;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || current == nullptr) {
      throw CliFailure(ExitCode::kUsage,
                       at + (current == nullptr ? " is outside any profile; start the file with "
                                                  "a heading such as [default]"
                                                : " is not a setting; write KEY = VALUE"));
    }
    const std::string key = Trim(line.substr(0, equals));
    std::string value = Trim(line.substr(equals + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    if (key.empty()) {
      throw CliFailure(ExitCode::kUsage, at + " has no key before =; write KEY = VALUE");
    }
    if (current->values.count(key) != 0) {
      throw CliFailure(ExitCode::kUsage, at + " sets " + key + " a second time in the profile " +
                                             current->name + "; keep one of the two lines");
    }
    current->values[key] = {value, number};
  }
  return config;
}

const ConfigFile::Profile* ConfigFile::Find(const std::string& name) const {
  for (const Profile& profile : profiles_) {
    if (profile.name == name) return &profile;
  }
  return nullptr;
}

std::string ConfigFile::Names() const {
  std::string names;
  for (const Profile& profile : profiles_) {
    if (!names.empty()) names += ", ";
    names += profile.name;
  }
  return names.empty() ? std::string("none") : names;
}

}  // namespace quire_cli
