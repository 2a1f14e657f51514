// The quire command's configuration file ($XDG_CONFIG_HOME/quire/config, by default
// ~/.config/quire/config): named profiles in INI form.
//
//   # comments start with # or ;
//   [default]                      # used when no profile is chosen
//   server = https://127.0.0.1:8443
//   cacert = ~/quire/cert.pem      # relative paths are taken from the file's folder
//   [work]
//   token-file = ~/.quire-token
//   proxy = http://proxy.example:3128
//   timeout = 30
//   retries = 3
#pragma once

#include <QString>
#include <map>
#include <string>
#include <vector>

namespace quire_cli {

class ConfigFile {
 public:
  // One key of a profile, as written.
  struct Value {
    std::string text;
    int line = 0;
  };
  // A named section of the file.
  struct Profile {
    std::string name;
    int line = 0;
    std::map<std::string, Value> values;
  };

  // The file's path: $XDG_CONFIG_HOME/quire/config when that variable holds an absolute path,
  // else $HOME/.config/quire/config (empty when neither is set).
  static QString DefaultPath(const QString& xdg_config_home, const QString& home);

  // Reads and parses `path`. A missing file is an empty configuration (exists() false). Throws
  // CliFailure (usage) for a file that cannot be read, a line that is neither a section, a
  // "key = value" pair inside a section, a comment nor blank, a key given twice in a profile, or a
  // profile named twice; the message names the file and the line.
  static ConfigFile Read(const QString& path);

  const QString& path() const { return path_; }
  bool exists() const { return exists_; }
  // Whether users other than the owner may read the file (or the owner is someone else).
  bool readable_by_others() const { return readable_by_others_; }
  const std::vector<Profile>& profiles() const { return profiles_; }
  // The profile named `name`, or null.
  const Profile* Find(const std::string& name) const;
  // The names of the profiles, comma-separated, for messages.
  std::string Names() const;

 private:
  QString path_;
  bool exists_ = false;
  bool readable_by_others_ = false;
  std::vector<Profile> profiles_;
};

}  // namespace quire_cli
