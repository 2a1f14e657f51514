#include "tools/quire/token_source.h"

#include <QFile>
#include <cstdlib>

#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

// A token travels in an "Authorization: Bearer <token>" line unchanged, so anything that could end
// or fold the line is refused.
bool HasForbiddenCharacter(const QString& token) {
  for (const QChar c : token) {
    if (c.unicode() <= 0x20 || c.unicode() == 0x7f || c.unicode() > 0x7e) return true;
  }
  return false;
}

}  // namespace

QString TokenSource::Read(const QString& token_file, const QString& environment_value) {
  QString token;
  QString origin;
  if (!token_file.isEmpty()) {
    QFile file(token_file);
    if (!file.open(QIODevice::ReadOnly)) {
      throw CliFailure(ExitCode::kUsage, "cannot read the token file " + token_file.toStdString() +
                                             " (" + file.errorString().toStdString() +
                                             "); give a readable file with --token-file");
    }
    // A token is short; a file far larger than any token is not a token file.
    const QByteArray bytes = file.read(64 * 1024);
    token = QString::fromUtf8(bytes).trimmed();
    origin = "the token file " + token_file;
    if (token.isEmpty()) {
      throw CliFailure(ExitCode::kUsage, "the token file " + token_file.toStdString() +
                                             " is empty; write the bearer token into it");
    }
  } else {
    token = environment_value.trimmed();
    origin = QString::fromLatin1(kEnvironmentVariable);
    if (token.isEmpty()) {
      throw CliFailure(ExitCode::kUsage,
                       std::string("no token was given; set ") + kEnvironmentVariable +
                           " or give --token-file FILE (tokens are not taken on the command line)");
    }
  }
  if (HasForbiddenCharacter(token)) {
    throw CliFailure(ExitCode::kUsage, "the token in " + origin.toStdString() +
                                           " holds blanks, control or non-ASCII characters; "
                                           "check that it is a bearer token and nothing else");
  }
  return token;
}

QString TokenSource::Read(const QString& token_file) {
  const char* value = std::getenv(kEnvironmentVariable);
  return Read(token_file, value != nullptr ? QString::fromLocal8Bit(value) : QString());
}

}  // namespace quire_cli
