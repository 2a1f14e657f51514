#include "tools/quire/demo_runner.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>
#include <QUuid>
#include <cstdio>
#include <memory>
#include <vector>

#include "tools/quire/cli_failure.h"
#include "tools/quire/client.h"
#include "tools/quire/doc_resolver.h"
#include "tools/quire/progress_bar.h"
#include "tools/quire/server_process.h"
#include "tools/quire/transport_installation.h"
#include "tools/quire/uploader.h"

namespace quire_cli {
namespace {

constexpr int kSteps = 10;
constexpr char kAccount[] = "demo@quire.example";
constexpr char kTitle[] = "demo-20MiB.bin";

// Writes `size` pseudo-random bytes (xorshift, fixed seed) to `path` and returns their SHA-256.
QByteArray Generate(const QString& path, std::int64_t size) {
  QFile file(path);
  if (!file.open(QIODevice::WriteOnly)) {
    throw CliFailure(ExitCode::kLocal, "cannot write " + path.toStdString() + " (" +
                                           file.errorString().toStdString() + ")");
  }
  QCryptographicHash hash(QCryptographicHash::Sha256);
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  QByteArray block(1 << 16, Qt::Uninitialized);
  for (std::int64_t done = 0; done < size; done += block.size()) {
    for (int i = 0; i < block.size(); i += 8) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      for (int b = 0; b < 8; ++b) block[i + b] = static_cast<char>(state >> (8 * b));
    }
    const QByteArray part =
        block.left(static_cast<int>(std::min<std::int64_t>(block.size(), size - done)));
    hash.addData(part);
    if (file.write(part) != part.size()) {
      throw CliFailure(ExitCode::kLocal, "cannot write " + path.toStdString() + " (" +
                                             file.errorString().toStdString() + ")");
    }
  }
  return hash.result();
}

std::string Hex(const QByteArray& bytes) { return bytes.toHex().toStdString(); }

std::string Doc(const DocRecord& doc) {
  return "\"" + doc.title.toStdString() + "\" " + doc.content_type.toStdString() + ", entity tag " +
         doc.etag.toStdString();
}

const DocRecord* FindById(const FeedSnapshot& snapshot, const QString& id) {
  for (const DocRecord& doc : snapshot.documents) {
    if (doc.id == id) return &doc;
  }
  return nullptr;
}

std::string Elapsed(std::chrono::steady_clock::time_point since) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count());
  return text;
}

}  // namespace

DemoRunner::DemoRunner(HostEnvironment* host, const QString& server_binary)
    : host_(host), server_binary_(server_binary) {}

void DemoRunner::Step(int number, const std::string& name,
                      const std::function<std::string()>& step) {
  char label[64];
  std::snprintf(label, sizeof label, "[%d/%d] ", number, kSteps);
  std::string line = label + name + " ";
  if (line.size() < 40) line.resize(40, '.');
  *host_->out << line << ' ' << std::flush;
  std::string result;
  try {
    result = step();
  } catch (const CliFailure& failure) {
    *host_->out << "FAILED\n" << std::flush;
    throw CliFailure(failure.code(), "demo step " + std::to_string(number) + " (" + name +
                                         ") failed: " + failure.message());
  }
  *host_->out << result << '\n' << std::flush;
}

void DemoRunner::Run() {
  start_ = std::chrono::steady_clock::now();
  *host_->out << "quire demo: a local emulator of the service, and every command against it\n"
              << std::flush;
  const QString program = ServerProcess::Find(host_->program_dir, server_binary_);
  QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/quire-demo-XXXXXX"));
  if (!folder.isValid()) {
    throw CliFailure(ExitCode::kLocal, "cannot create a temporary folder in " +
                                           QDir::tempPath().toStdString() +
                                           "; check TMPDIR and its free space");
  }
  const QString token = QUuid::createUuid().toString(QUuid::WithoutBraces) +
                        QUuid::createUuid().toString(QUuid::WithoutBraces);

  ServerProcess::Settings settings;
  settings.program = program;
  settings.data_dir = folder.filePath(QStringLiteral("data"));
  settings.log_file = folder.filePath(QStringLiteral("server.log"));
  settings.account = QString::fromLatin1(kAccount);
  settings.token = token;
  ServerProcess server(settings);
  Step(1, "start quire-server", [&] {
    server.Start();
    return "listening on " + server.url().toStdString();
  });

  ClientOptions options;
  options.server = server.url();
  options.cacert = server.certificate();
  options.timeout_seconds = 20;
  TransportInstallation transport(host_->make_transport, options);
  Client client(token, transport.classifier());

  Step(2, "whoami", [&] {
    const QString email = client.UserEmail();
    if (email != QLatin1String(kAccount)) {
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the service says the user is \"" + email.toStdString() + "\", not " +
                           kAccount + "; check the emulator's --account");
    }
    return "signed in as " + email.toStdString();
  });

  const QString path = folder.filePath(QString::fromLatin1(kTitle));
  QByteArray sha256;
  DocRecord uploaded;
  Step(3, "upload 20 MiB in chunks", [&] {
    sha256 = Generate(path, kUploadSize);
    const UploadState file = Uploader::Identify(path);
    const FeedSnapshot snapshot = client.List();
    Uploader uploader(token, transport.classifier(), folder.filePath(QStringLiteral("upload.json")),
                      host_->err_is_terminal ? host_->err : nullptr);
    uploaded = uploader.Upload(snapshot.resumable_create_media_link, true, file,
                               QString::fromLatin1(kTitle),
                               QStringLiteral("application/octet-stream"), kChunkSize);
    char rate[64];
    std::snprintf(rate, sizeof rate, "%.1f s, %s/s", uploader.seconds(),
                  ProgressBar::Size(static_cast<double>(kUploadSize) / uploader.seconds()).c_str());
    return std::to_string(kUploadSize) + " bytes in " + std::to_string(uploader.put_answers()) +
           " chunks of at most 1 MiB (" + rate + ")";
  });

  DocRecord listed;
  Step(4, "ls", [&] {
    const FeedSnapshot snapshot = client.List();
    const DocRecord* doc = FindById(snapshot, uploaded.id);
    if (doc == nullptr) {
      throw CliFailure(ExitCode::kNotFound, "the uploaded document is not in the list");
    }
    listed = *doc;
    return std::to_string(snapshot.documents.size()) + " document: " + Doc(listed);
  });

  Step(5, "get and check SHA-256", [&] {
    QCryptographicHash hash(QCryptographicHash::Sha256);
    std::int64_t size = 0;
    client.Download(listed, [&](const QByteArray& body) {
      size = body.size();
      hash.addData(body);
    });
    if (hash.result() != sha256 || size != kUploadSize) {
      throw CliFailure(ExitCode::kUnreadableAnswer,
                       "the downloaded content (" + std::to_string(size) + " bytes, SHA-256 " +
                           Hex(hash.result()) + ") differs from the uploaded file (SHA-256 " +
                           Hex(sha256) + ")");
    }
    return std::to_string(size) + " bytes, SHA-256 " + Hex(sha256).substr(0, 16) + "... identical";
  });

  DocRecord replaced;
  Step(6, "replace the content", [&] {
    const QByteArray content =
        QByteArray("The second version of the demo document.\n").repeated(64);
    replaced = client.Replace(listed, content);
    if (replaced.etag == listed.etag || replaced.etag.isEmpty()) {
      throw CliFailure(
          ExitCode::kUnreadableAnswer,
          "the entity tag did not change with the content (" + replaced.etag.toStdString() + ")");
    }
    return std::to_string(content.size()) + " bytes, entity tag " + listed.etag.toStdString() +
           " -> " + replaced.etag.toStdString();
  });

  Step(7, "rm with the old entity tag", [&] {
    try {
      client.Delete(listed, listed.etag);
    } catch (const CliFailure& failure) {
      if (failure.code() == ExitCode::kEntityTagChanged) {
        return std::string(
            "refused as it should be: HTTP 412, the document changed since it was "
            "listed");
      }
      throw;
    }
    throw CliFailure(ExitCode::kServerError,
                     "the service deleted the document under an entity tag that was no longer "
                     "current");
  });

  Step(8, "rm with the current entity tag", [&] {
    client.Delete(replaced, replaced.etag);
    return std::string("deleted ") + Doc(replaced);
  });

  Step(9, "ls", [&] {
    const FeedSnapshot snapshot = client.List();
    if (FindById(snapshot, uploaded.id) != nullptr) {
      throw CliFailure(ExitCode::kServerError, "the deleted document is still in the list");
    }
    return snapshot.documents.empty()
               ? std::string("no documents")
               : std::to_string(snapshot.documents.size()) + " documents, the demo's is gone";
  });

  Step(10, "stop quire-server", [&] {
    if (!server.Stop()) {
      throw CliFailure(ExitCode::kLocal, "quire-server did not stop cleanly; see its log");
    }
    return std::string("stopped");
  });
  *host_->out << "demo finished in " << Elapsed(start_) << '\n' << std::flush;
}

}  // namespace quire_cli
