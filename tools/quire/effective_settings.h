// The settings a command runs with, each with where it came from: a command-line option, the
// environment (QUIRE_TOKEN, QUIRE_PROFILE), the chosen profile of the configuration file, or the
// built-in default, in that order of precedence. `quire config` prints them.
#pragma once

#include <QString>
#include <map>
#include <string>
#include <vector>

#include "tools/quire/client_options.h"
#include "tools/quire/config_file.h"

namespace quire_cli {

class EffectiveSettings {
 public:
  enum class Origin { kFlag, kEnvironment, kProfile, kDefault };

  // One resolved setting. An empty value means unset (the default behaviour applies).
  struct Setting {
    std::string value;
    Origin origin = Origin::kDefault;
    // Where exactly: "--server", "QUIRE_TOKEN", "profile work, <file> line 3".
    std::string source;
  };

  // What the settings are resolved from.
  struct Inputs {
    // The values of the options given on the command line, by key ("server", "timeout", ...;
    // the option is "--" and the key).
    std::map<std::string, std::string> flags;
    // --profile (empty when not given) and QUIRE_PROFILE (null when unset).
    std::string profile_flag;
    QString profile_variable;
    // QUIRE_TOKEN (null when unset).
    QString token_variable;
    // The configuration file (ConfigFile::DefaultPath); empty for none.
    QString config_path;
    // The proxy that the environment names for https (https_proxy or HTTPS_PROXY; empty for
    // none) and the variable's name: it comes before the profile's, as with curl.
    std::string proxy_variable;
    std::string proxy_variable_name;
  };

  // The keys a profile may hold: server, cacert, token-file, token, proxy, timeout, retries.
  static const std::vector<std::string>& Keys();

  // Reads the configuration file and resolves every setting. Throws CliFailure (usage), naming
  // the file and line, for an unknown key, a value that is not valid for its key, a profile
  // chosen with --profile or QUIRE_PROFILE that the file does not hold, a profile with both a
  // token and a token-file, or a token in a file that others may read.
  static EffectiveSettings Resolve(const Inputs& inputs);

  // The setting of `key` (one of Keys() but "token"/"token-file", which resolve together as
  // "token"; or "profile").
  const Setting& Get(const std::string& key) const;

  // Writes the resolved server, CA file, token file, time-out and retries into `options` (the
  // proxy, which the environment also gives per scheme, is the command line's to apply).
  void ApplyTo(ClientOptions* options) const;
  // The token to use when it does not come from a file: QUIRE_TOKEN's value, or the profile's
  // token, or null (then ClientOptions::token_file, or nothing).
  const QString& token_value() const { return token_value_; }

  // The table `quire config` prints: every setting, its value (the token masked, a proxy's
  // password masked) and its origin.
  std::string Report() const;

  // "flag", "environment", "profile" or "default".
  static const char* OriginName(Origin origin);

 private:
  std::map<std::string, Setting> settings_;
  QString token_value_;
  QString token_file_;
  ConfigFile config_;
};

}  // namespace quire_cli
