#include "tools/quire/effective_settings.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>
#include <cmath>
#include <cstdlib>

#include "tools/quire/cli_failure.h"
#include "tools/quire/command_line.h"

namespace quire_cli {
namespace {

constexpr char kTokenVariable[] = "QUIRE_TOKEN";
constexpr char kProfileVariable[] = "QUIRE_PROFILE";
constexpr char kDefaultProfile[] = "default";
constexpr int kMaxRetries = 100;

// What an unset setting means, as `quire config` shows it.
std::string DefaultText(const std::string& key) {
  if (key == "server") return "(the service's own hosts)";
  if (key == "cacert") return "(the system's certificates only)";
  if (key == "token") return "(none)";
  if (key == "proxy") return "(none)";
  if (key == "profile") return "(none)";
  return "";
}

// A proxy address: a scheme libcurl knows for proxies, a host, an optional port and nothing else.
bool IsProxy(const std::string& text) {
  const QUrl url(QString::fromStdString(text), QUrl::StrictMode);
  static const char* const kSchemes[] = {"http", "https", "socks4", "socks4a", "socks5", "socks5h"};
  bool known = false;
  for (const char* scheme : kSchemes) known = known || url.scheme() == QLatin1String(scheme);
  return known && url.isValid() && !url.host().isEmpty() &&
         (url.path().isEmpty() || url.path() == QLatin1String("/")) && !url.hasQuery() &&
         !url.hasFragment();
}

std::string MaskProxy(const std::string& text) {
  QUrl url(QString::fromStdString(text));
  if (!url.password().isEmpty()) url.setPassword(QStringLiteral("<masked>"));
  return url.toString().toStdString();
}

}  // namespace

const std::vector<std::string>& EffectiveSettings::Keys() {
  static const std::vector<std::string> keys = {"server", "cacert",  "token-file", "token",
                                                "proxy",  "timeout", "retries"};
  return keys;
}

const char* EffectiveSettings::OriginName(Origin origin) {
  switch (origin) {
    case Origin::kFlag:
      return "flag";
    case Origin::kEnvironment:
      return "environment";
    case Origin::kProfile:
      return "profile";
    case Origin::kDefault:
      break;
  }
  return "default";
}

EffectiveSettings EffectiveSettings::Resolve(const Inputs& inputs) {
  EffectiveSettings result;
  result.config_ = ConfigFile::Read(inputs.config_path);
  const ConfigFile& config = result.config_;
  const std::string file = config.path().toStdString();

  // Which profile: --profile, QUIRE_PROFILE, else [default] when the file has one.
  Setting& profile = result.settings_["profile"];
  if (!inputs.profile_flag.empty()) {
    profile = {inputs.profile_flag, Origin::kFlag, "--profile"};
  } else if (!inputs.profile_variable.isEmpty()) {
    profile = {inputs.profile_variable.toStdString(), Origin::kEnvironment, kProfileVariable};
  } else if (config.Find(kDefaultProfile) != nullptr) {
    profile = {kDefaultProfile, Origin::kDefault, "[" + std::string(kDefaultProfile) + "]"};
  }
  const ConfigFile::Profile* chosen = nullptr;
  if (!profile.value.empty()) {
    chosen = config.Find(profile.value);
    if (chosen == nullptr) {
      const std::string given = profile.origin == Origin::kFlag ? "--profile" : kProfileVariable;
      if (!config.exists()) {
        throw CliFailure(ExitCode::kUsage,
                         "the profile " + profile.value + " (from " + given +
                             ") needs the configuration file " +
                             (file.empty() ? std::string("~/.config/quire/config") : file) +
                             ", which does not exist; create it with a [" + profile.value +
                             "] section, or choose no profile");
      }
      throw CliFailure(ExitCode::kUsage, "there is no profile " + profile.value + " (from " +
                                             given + ") in " + file +
                                             "; its profiles are: " + config.Names());
    }
  }

  // The profile's values, checked key by key.
  std::map<std::string, std::pair<std::string, std::string>> from_profile;  // value, source
  if (chosen != nullptr) {
    const QDir base = QFileInfo(config.path()).absoluteDir();
    for (const auto& entry : chosen->values) {
      const std::string& key = entry.first;
      std::string value = entry.second.text;
      const std::string at = file + " line " + std::to_string(entry.second.line);
      const auto invalid = [&](const std::string& what) {
        return CliFailure(ExitCode::kUsage, at + ": " + key + " " +
                                                (key == "token" ? std::string("<masked>") : value) +
                                                " " + what);
      };
      bool known = false;
      for (const std::string& k : Keys()) known = known || k == key;
      if (!known) {
        std::string keys;
        for (const std::string& k : Keys()) keys += (keys.empty() ? "" : ", ") + k;
        throw CliFailure(ExitCode::kUsage, at + ": unknown key " + key + "; the keys are " + keys);
      }
      if (value.empty()) throw invalid("has no value; give one or remove the line");
      if (key == "server") {
        try {
          CommandLine::CheckServer(QString::fromStdString(value));
        } catch (const CliFailure&) {
          throw invalid(
              "is not an https address of a host with an optional port; give one such "
              "as https://127.0.0.1:8443");
        }
      } else if (key == "cacert" || key == "token-file") {
        // "~/" is the home folder; a relative path is taken from the file's folder.
        QString path = QString::fromStdString(value);
        if (path.startsWith(QLatin1String("~/"))) path = QDir::homePath() + path.mid(1);
        value = QDir::cleanPath(base.absoluteFilePath(path)).toStdString();
      } else if (key == "proxy") {
        if (!IsProxy(value)) {
          throw invalid(
              "is not a proxy address; give one such as http://proxy.example:3128 "
              "(http, https, socks4, socks4a, socks5 or socks5h)");
        }
      } else if (key == "timeout") {
        char* end = nullptr;
        const double seconds = std::strtod(value.c_str(), &end);
        if (end == value.c_str() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0) {
          throw invalid("is not a positive number of seconds; give one such as 30");
        }
      } else if (key == "retries") {
        const bool digits =
            value.size() <= 3 && value.find_first_not_of("0123456789") == std::string::npos;
        if (!digits || std::stoi(value) > kMaxRetries) {
          throw invalid("is not a number of retries from 0 to " + std::to_string(kMaxRetries) +
                        "; give one such as 3");
        }
      }
      from_profile[key] = {value, "profile " + chosen->name + ", " + at};
    }
    if (from_profile.count("token") != 0 && from_profile.count("token-file") != 0) {
      throw CliFailure(ExitCode::kUsage, "the profile " + chosen->name + " in " + file +
                                             " holds both token and token-file; keep one");
    }
    // Like a private key: a token written in the file is taken only when no one else can read it.
    if (from_profile.count("token") != 0 && config.readable_by_others()) {
      throw CliFailure(ExitCode::kUsage,
                       "the configuration file " + file + " holds a token (profile " +
                           chosen->name + ") but users other than you may read it; run chmod 600 " +
                           file + ", or move the token into a file named with token-file");
    }
  }

  // Precedence: flag, environment, profile, default.
  for (const std::string key : {"server", "cacert", "proxy", "timeout", "retries"}) {
    Setting& setting = result.settings_[key];
    const auto flag = inputs.flags.find(key);
    if (flag != inputs.flags.end()) {
      setting = {flag->second, Origin::kFlag, "--" + std::string(key)};
    } else if (key == "proxy" && !inputs.proxy_variable.empty()) {
      setting = {inputs.proxy_variable, Origin::kEnvironment, inputs.proxy_variable_name};
    } else if (from_profile.count(key) != 0) {
      setting = {from_profile[key].first, Origin::kProfile, from_profile[key].second};
    } else if (key == "timeout") {
      setting = {"60", Origin::kDefault, ""};
    } else if (key == "retries") {
      setting = {std::to_string(ClientOptions().retries), Origin::kDefault, ""};
    }
  }
  Setting& token = result.settings_["token"];
  const auto token_flag = inputs.flags.find("token-file");
  if (token_flag != inputs.flags.end()) {
    token = {token_flag->second, Origin::kFlag, "--token-file"};
    result.token_file_ = QString::fromStdString(token_flag->second);
  } else if (!inputs.token_variable.trimmed().isEmpty()) {
    token = {"", Origin::kEnvironment, kTokenVariable};
    result.token_value_ = inputs.token_variable;
  } else if (from_profile.count("token-file") != 0) {
    token = {from_profile["token-file"].first, Origin::kProfile, from_profile["token-file"].second};
    result.token_file_ = QString::fromStdString(from_profile["token-file"].first);
  } else if (from_profile.count("token") != 0) {
    token = {"", Origin::kProfile, from_profile["token"].second};
    result.token_value_ = QString::fromStdString(chosen->values.at("token").text);
  }
  return result;
}

const EffectiveSettings::Setting& EffectiveSettings::Get(const std::string& key) const {
  static const Setting kUnset;
  const auto found = settings_.find(key);
  return found == settings_.end() ? kUnset : found->second;
}

void EffectiveSettings::ApplyTo(ClientOptions* options) const {
  options->server = QString::fromStdString(Get("server").value);
  options->cacert = QString::fromStdString(Get("cacert").value);
  options->token_file = token_file_;
  if (!Get("timeout").value.empty()) options->timeout_seconds = std::stod(Get("timeout").value);
  if (!Get("retries").value.empty()) options->retries = std::stoi(Get("retries").value);
}

std::string EffectiveSettings::Report() const {
  std::vector<std::vector<std::string>> rows;
  rows.push_back({"SETTING", "VALUE", "ORIGIN"});
  for (const std::string key :
       {"profile", "server", "cacert", "token", "proxy", "timeout", "retries"}) {
    const Setting& setting = Get(key);
    std::string value = setting.value.empty() ? DefaultText(key) : setting.value;
    if (key == "token" && setting.origin != Origin::kDefault) {
      // Never the token itself: where it is read from.
      value = token_file_.isEmpty() ? "<masked>" : "<masked>, read from " + setting.value;
    }
    if (key == "proxy" && !setting.value.empty()) value = MaskProxy(setting.value);
    std::string origin = OriginName(setting.origin);
    if (!setting.source.empty()) origin += " (" + setting.source + ")";
    rows.push_back({key, value, origin});
  }
  std::size_t widths[2] = {0, 0};
  for (const auto& row : rows) {
    for (int i = 0; i < 2; ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    text += row[0] + std::string(widths[0] + 2 - row[0].size(), ' ') + row[1] +
            std::string(widths[1] + 2 - row[1].size(), ' ') + row[2] + '\n';
  }
  text += "configuration file: " +
          (config_.path().isEmpty()
               ? std::string("(none: neither XDG_CONFIG_HOME nor HOME is set)")
               : config_.path().toStdString() + (config_.exists() ? "" : " (not found)")) +
          '\n';
  return text;
}

}  // namespace quire_cli
