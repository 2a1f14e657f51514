#include "tools/quire/command_line.h"

#include <CLI/CLI.hpp>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QUrl>
#include <cctype>

#include "quire/services/docs_service.h"
#include "tools/quire/cli_failure.h"
#include "tools/quire/client.h"
#include "tools/quire/demo_runner.h"
#include "tools/quire/doc_list_formatter.h"
#include "tools/quire/doc_resolver.h"
#include "tools/quire/downloader.h"
#include "tools/quire/exit_codes.h"
#include "tools/quire/mapped_file.h"
#include "tools/quire/retry_tally.h"
#include "tools/quire/token_source.h"
#include "tools/quire/transport_installation.h"
#include "tools/quire/upload_state.h"
#include "tools/quire/uploader.h"

#ifndef QUIRE_VERSION
#define QUIRE_VERSION "0"
#endif

namespace quire_cli {
namespace {

constexpr char kDefaultChunkSize[] = "8MiB";
QString Q(const std::string& text) { return QString::fromStdString(text); }

std::string Describe(const DocRecord& doc) {
  return "\"" + doc.title.toStdString() + "\" (id " + doc.id.toStdString() + ", entity tag " +
         doc.etag.toStdString() + ")";
}

std::string Footer() {
  return "\nThe token comes from the environment variable QUIRE_TOKEN or from the file given with\n"
         "--token-file. It is never taken on the command line and never printed.\n"
         "\n"
         "Settings also come from the profile chosen with --profile or QUIRE_PROFILE (else\n"
         "[default]) in $XDG_CONFIG_HOME/quire/config; options override it. quire config shows\n"
         "them all with their origin.\n"
         "\n"
         "DOC is a document's title, its id or its edit address (see quire ls --json). A title\n"
         "that several documents share is refused with the ids of the candidates.\n"
         "\n"
         "Every failure ends with one line that says what went wrong and what to do.\n"
         "Exit codes:\n" +
         ExitCodes::Table();
}

}  // namespace

CommandLine::CommandLine(HostEnvironment* host) : host_(host) {}

CommandLine::~CommandLine() = default;

std::uint32_t CommandLine::ParseChunkSize(const std::string& text) {
  std::size_t digits = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
  const std::string unit = text.substr(digits);
  std::uint64_t factor = 0;
  if (unit.empty()) factor = 1;
  if (unit == "K" || unit == "KiB") factor = 1024;
  if (unit == "M" || unit == "MiB") factor = 1024 * 1024;
  if (unit == "G" || unit == "GiB") factor = 1024 * 1024 * 1024;
  const std::uint64_t limit = 1024 * 1024 * 1024;
  if (digits == 0 || digits > 10 || factor == 0) {
    throw CliFailure(ExitCode::kUsage, "the chunk size \"" + text +
                                           "\" is not a size; give bytes, or a number followed by "
                                           "KiB, MiB or GiB (e.g. 8MiB)");
  }
  const std::uint64_t bytes = std::stoull(text.substr(0, digits)) * factor;
  // Each chunk after the first starts again at the last byte the service holds, so a chunk of
  // one byte would never move on.
  if (bytes < 2 || bytes > limit) {
    throw CliFailure(ExitCode::kUsage, "the chunk size " + text +
                                           " is outside 2 bytes .. 1 GiB; give a size in that "
                                           "range (e.g. 8MiB)");
  }
  return static_cast<std::uint32_t>(bytes);
}

void CommandLine::CheckServer(const QString& server) {
  const QUrl url(server, QUrl::StrictMode);
  const bool plain_address = url.isValid() && !url.host().isEmpty() &&
                             (url.path().isEmpty() || url.path() == QLatin1String("/")) &&
                             !url.hasQuery() && !url.hasFragment() && url.userInfo().isEmpty();
  if (!plain_address || url.scheme() != QLatin1String("https")) {
    throw CliFailure(ExitCode::kUsage,
                     "--server " + server.toStdString() +
                         " is not an https address of a host with an optional port; give one "
                         "such as https://127.0.0.1:8443 (the service is reached over https)");
  }
}

std::string CommandLine::Help() {
  CLI::App app;
  Build(&app);
  return app.help();
}

void CommandLine::Build(CLI::App* app) {
  app->name("quire");
  app->description(
      "quire: the documents of a document-storage account, from the command line.\n"
      "Lists, downloads, creates, replaces and deletes documents, and uploads large files in "
      "resumable chunks.");
  app->footer(Footer());
  app->require_subcommand(1);
  app->fallthrough();
  app->set_version_flag("--version", "quire " QUIRE_VERSION);

  app->add_option("--server", server_,
                  "Send the requests meant for the service's hosts (api.quire.example and "
                  "docs.quire.example) to this https address instead, e.g. a local emulator's")
      ->type_name("URL");
  app->add_option("--cacert", cacert_, "Also trust the certificates in this PEM file")
      ->type_name("FILE");
  app->add_flag("--insecure", options_.insecure,
                "Do not check the service's certificate at all (for tests only)");
  app->add_option("--timeout", options_.timeout_seconds,
                  "Give up when connecting, or a transfer in which no byte moves, takes longer "
                  "than this many seconds")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app->add_option("--proxy", proxy_,
                  "Reach the service through this proxy (http://[USER:PASSWORD@]HOST:PORT) "
                  "instead of the one that https_proxy names; \"\" for none")
      ->type_name("URL");
  app->add_option("--retries", options_.retries,
                  "Send a request that failed for a passing reason (no answer; HTTP 408, 429, 500, "
                  "502, 503 or 504) again up to N times, waiting longer each time (as long as the "
                  "service asks with Retry-After); 0 turns retrying off")
      ->type_name("N")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  app->add_option("--token-file", token_file_,
                  "Read the bearer token from this file instead of QUIRE_TOKEN")
      ->type_name("FILE");
  app->add_option("--profile", profile_,
                  "Take the settings that no option gives from this profile of the configuration "
                  "file (default: QUIRE_PROFILE, else [default])")
      ->type_name("NAME");
  app->add_flag("-v,--verbose", options_.verbosity,
                "Tell each request on the standard error: method, URL, status, bytes, time and "
                "attempt; twice (-vv) also the header lines, credentials masked");
  // Not offered: a token on the command line would show in the process list. The option exists
  // only to refuse it without echoing the value.
  app->add_option("--token", token_on_command_line_)->group("");

  app->add_subcommand("whoami", "Print the signed-in user's e-mail address");

  CLI::App* ls = app->add_subcommand(
      "ls", "List the documents: title, media type, updated, starred, removed, entity tag");
  ls->add_flag("--json", json_,
               "Print a JSON array with one object per document holding every field of its entry")
      ->excludes(ls->add_flag("--titles", titles_, "Print only the titles, one per line"));

  CLI::App* get = app->add_subcommand("get", "Download a document's content");
  get->add_option("DOC", doc_, "The document: title, id or edit address")->required();
  get->add_option("-o,--output", output_,
                  "Write the content to FILE instead of standard output: it is streamed into "
                  "FILE.part, which replaces FILE only once it is complete")
      ->type_name("FILE");
  get->add_flag("--continue", continue_,
                "Continue the FILE.part that an interrupted run left: only the missing bytes are "
                "asked for (while the document is unchanged)");

  CLI::App* put = app->add_subcommand(
      "put", "Create a document from FILE in one request (the service names it \"Untitled\")");
  put->add_option("FILE", file_, "The file to send")->required();

  CLI::App* replace = app->add_subcommand("replace", "Replace a document's content with FILE");
  replace->add_option("DOC", doc_, "The document: title, id or edit address")->required();
  replace->add_option("FILE", file_, "The file whose bytes become the content")->required();

  CLI::App* rm = app->add_subcommand(
      "rm",
      "Delete a document under the entity tag it has in the listing: refused (exit 6) if it "
      "changed since");
  rm->add_option("DOC", doc_, "The document: title, id or edit address")->required();
  CLI::Option* force =
      rm->add_flag("--force", force_, "Delete it whatever it holds now (no entity tag is sent)");
  rm->add_option("--if-match", if_match_,
                 "Delete it only if it still has this entity tag (as quire ls --json showed it) "
                 "rather than the one it has in the listing now")
      ->type_name("ETAG")
      ->excludes(force);

  CLI::App* upload = app->add_subcommand(
      "upload",
      "Upload FILE in chunks; an interrupted upload continues with --resume. Shows a progress "
      "bar on a terminal");
  CLI::Option* file =
      upload->add_option("FILE", file_, "The file to upload (any size the service takes)");
  CLI::Option* title =
      upload->add_option("--title", title_, "The new document's title (default: the file name)")
          ->type_name("T");
  CLI::Option* type =
      upload
          ->add_option("--type", type_,
                       "The media type of the content (default: guessed from the file name)")
          ->type_name("MEDIA");
  CLI::Option* chunk =
      upload
          ->add_option("--chunk-size", chunk_size_,
                       "The most bytes one request carries: bytes, or with KiB, MiB or GiB "
                       "(default 8MiB)")
          ->type_name("N");
  CLI::Option* to =
      upload
          ->add_option("--to", to_, "Replace the content of this document instead of creating one")
          ->type_name("DOC");
  CLI::Option* resume = upload->add_flag(
      "--resume", resume_,
      "Continue the interrupted upload from where the service says it stands (the file must "
      "not have changed)");
  upload
      ->add_option("--state-file", state_file_,
                   "Where the state of an unfinished upload is kept (default: "
                   "$XDG_STATE_HOME/quire/upload.json)")
      ->type_name("FILE");
  resume->excludes(file)->excludes(title)->excludes(type)->excludes(chunk)->excludes(to);
  to->excludes(title);

  app->add_subcommand("config",
                      "Show the settings in effect and where each comes from (flag, environment, "
                      "profile, default), the token masked");

  CLI::App* demo = app->add_subcommand(
      "demo",
      "Start a local emulator of the service on a free port and walk through the commands "
      "against it: whoami, upload 20 MiB, ls, get and check, replace, a refused and a real "
      "rm, ls");
  demo->add_option("--server-binary", server_binary_,
                   "The emulator program (default: quire-server next to quire)")
      ->type_name("PATH");
}

int CommandLine::Run(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  return Run(static_cast<int>(args.size()), argv.data());
}

int CommandLine::Run(int argc, char** argv) {
  CLI::App app;
  Build(&app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    out() << app.help();
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    out() << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::CallForVersion& version) {
    out() << version.what() << '\n';
    return 0;
  } catch (const CLI::ParseError& error) {
    std::string what = error.what();
    if (!token_on_command_line_.empty()) what = "a token was given on the command line";
    err() << "quire: " << what << "; see quire --help\n" << std::flush;
    return ExitCodes::Value(ExitCode::kUsage);
  }
  retries_.reset(new RetryTally(options_.retries));
  retried_said_ = false;
  try {
    Dispatch(&app);
    transport_.reset();  // the request log's last lines come before the command ends
    out() << std::flush;
    // The upload's own last line says it; other commands say it on the error stream, so that
    // their output stays what it would be without the retries.
    if (!retried_said_ && retries_->retries() > 0) {
      const int count = retries_->retries();
      err() << "quire: " << count << (count == 1 ? " retry" : " retries")
            << " after passing failures; all recovered\n"
            << std::flush;
    }
    return 0;
  } catch (const CliFailure& failure) {
    transport_.reset();
    out() << std::flush;
    err() << "quire: " << failure.message();
    const int retried = retries_->retries();
    if (retried > 0) err() << " (" << retried << (retried == 1 ? " retry made)" : " retries made)");
    err() << '\n' << std::flush;
    return ExitCodes::Value(failure.code());
  }
}

void CommandLine::Dispatch(CLI::App* app) {
  if (!token_on_command_line_.empty() || app->count("--token") > 0) {
    throw CliFailure(ExitCode::kUsage,
                     "tokens are not taken on the command line (other users can read a process's "
                     "arguments); set QUIRE_TOKEN or write the token into a file for --token-file");
  }
  // Every global option named like a profile key (--server, --timeout, ...) overrides it.
  EffectiveSettings::Inputs inputs{{},
                                   profile_,
                                   host_->profile_variable,
                                   host_->token_variable,
                                   host_->config_path,
                                   host_->proxy_variables.https_proxy.toStdString(),
                                   host_->proxy_variables.https_origin};
  for (const std::string& key : EffectiveSettings::Keys()) {
    const CLI::Option* option = app->get_option_no_throw("--" + key);
    if (key != "token" && option != nullptr && option->count() > 0) {
      inputs.flags[key] = option->results().back();
    }
  }
  settings_ = EffectiveSettings::Resolve(inputs);
  settings_.ApplyTo(&options_);
  // The proxy: --proxy, else the variables curl reads, else the profile's.
  options_.proxy = host_->proxy_variables;
  const EffectiveSettings::Setting& proxy = settings_.Get("proxy");
  if (proxy.origin == EffectiveSettings::Origin::kFlag ||
      proxy.origin == EffectiveSettings::Origin::kProfile) {
    options_.proxy.Override(QString::fromStdString(proxy.value));
    if (proxy.origin == EffectiveSettings::Origin::kProfile) {
      options_.proxy.https_origin = options_.proxy.http_origin = proxy.source;
    }
  }
  options_.proxy.Check();
  if (!options_.server.isEmpty()) CheckServer(options_.server);
  if (!options_.cacert.isEmpty() && !QFileInfo(options_.cacert).isReadable()) {
    throw CliFailure(ExitCode::kUsage, "cannot read the certificate file " +
                                           options_.cacert.toStdString() + " (from " +
                                           settings_.Get("cacert").source +
                                           "); give a readable PEM file");
  }

  const std::string name = app->get_subcommands().front()->get_name();
  if (name == "whoami") return Whoami();
  if (name == "ls") return List();
  if (name == "get") return Get();
  if (name == "put") return Put();
  if (name == "replace") return Replace();
  if (name == "rm") return Remove();
  if (name == "upload") return Upload();
  if (name == "demo") return Demo();
  if (name == "config") return Config();
}

void CommandLine::InstallTransport() {
  transport_.reset(new TransportInstallation(host_->make_transport, options_, &err()));
}

QString CommandLine::Token() {
  return TokenSource::Read(options_.token_file, settings_.token_value());
}

Client CommandLine::Connect(const QString& token) {
  InstallTransport();
  return Client(token, transport_->classifier(), retries_.get());
}

QString CommandLine::StatePath() const {
  return state_file_.empty() ? UploadState::DefaultPath() : Q(state_file_);
}

void CommandLine::Whoami() {
  // The user-information request carries no token; none is needed.
  Client client = Connect(QString());
  out() << client.UserEmail().toStdString() << '\n';
}

void CommandLine::List() {
  Client client = Connect(Token());
  const FeedSnapshot snapshot = client.List();
  if (titles_) {
    for (const DocRecord& doc : snapshot.documents) {
      QString title = doc.title;
      title.replace(QLatin1Char('\n'), QLatin1Char(' '))
          .replace(QLatin1Char('\r'), QLatin1Char(' '));
      out() << title.toStdString() << '\n';
    }
  } else if (json_) {
    const QByteArray json = DocListFormatter::Json(snapshot.documents);
    out().write(json.constData(), json.size());
  } else {
    out() << DocListFormatter::Table(snapshot.documents);
  }
}

void CommandLine::Get() {
  const QString token = Token();
  if (output_.empty() && continue_) {
    throw CliFailure(ExitCode::kUsage,
                     "--continue needs -o FILE (a download to the standard output cannot be "
                     "continued); add -o FILE");
  }
  // The destination is checked before anything is sent.
  if (!output_.empty()) Downloader::CheckOutputPath(Q(output_));
  Client client = Connect(token);
  const FeedSnapshot snapshot = client.List();
  const DocRecord doc = DocResolver(snapshot.documents).Resolve(Q(doc_));
  std::ostream* progress = host_->err_is_terminal ? host_->err : nullptr;
  Downloader downloader(client.docs(), transport_->classifier(), progress, options_.retries + 1);
  if (output_.empty()) {
    std::ostream& stream = out();
    downloader.ToStream(doc, [&stream](const char* data, std::size_t size) {
      stream.write(data, static_cast<std::streamsize>(size));
      return static_cast<bool>(stream);
    });
    if (!out().flush()) {
      throw CliFailure(ExitCode::kLocal, "cannot write the content of \"" +
                                             doc.title.toStdString() +
                                             "\" to the standard output; check where it goes");
    }
    return;
  }
  const std::string command = "quire get " + doc_ + " -o " + output_;
  downloader.ToFile(doc, Q(output_), continue_, command);
  out() << "saved \"" << doc.title.toStdString() << "\" (" << downloader.bytes() << " bytes) to "
        << output_;
  if (continue_) {
    if (downloader.reused() > 0) {
      out() << ", " << downloader.reused() << " bytes reused from " << output_ << ".part";
    } else if (downloader.restarted()) {
      out() << ", started over (the document changed since the part was written)";
    } else {
      out() << ", nothing reused (no part to continue)";
    }
  }
  if (downloader.attempts() > 1) out() << " after " << downloader.attempts() << " requests";
  out() << '\n';
}

void CommandLine::Put() {
  // The file is opened (and its size checked) before anything is sent.
  MappedFile file(Q(file_));
  Client client = Connect(Token());
  const FeedSnapshot snapshot = client.List();
  const DocRecord created = client.Create(snapshot.post_link, file.data());
  out() << "created " << Describe(created) << ", " << file.size() << " bytes\n";
}

void CommandLine::Replace() {
  MappedFile file(Q(file_));
  Client client = Connect(Token());
  const FeedSnapshot snapshot = client.List();
  const DocRecord doc = DocResolver(snapshot.documents).Resolve(Q(doc_));
  const DocRecord replaced = client.Replace(doc, file.data());
  out() << "replaced the content of " << Describe(replaced) << ", " << file.size() << " bytes\n";
}

void CommandLine::Remove() {
  Client client = Connect(Token());
  const FeedSnapshot snapshot = client.List();
  const DocRecord doc = DocResolver(snapshot.documents).Resolve(Q(doc_));
  QString etag = doc.etag;
  if (!if_match_.empty()) etag = Q(if_match_);
  if (force_) etag.clear();
  client.Delete(doc, etag);
  out() << "deleted " << Describe(doc) << '\n';
}

void CommandLine::Upload() {
  std::ostream* progress = host_->err_is_terminal ? host_->err : nullptr;
  if (resume_) {
    const QString token = Token();
    InstallTransport();
    Uploader uploader(token, transport_->classifier(), StatePath(), progress, retries_.get());
    const DocRecord doc = uploader.Resume();
    out() << "uploaded " << Describe(doc) << ": continued at byte " << uploader.start_bytes()
          << ", " << uploader.end_bytes() << " bytes held after " << uploader.put_answers()
          << " requests" << retries_->Note() << '\n';
    retried_said_ = true;
    return;
  }
  if (file_.empty()) {
    throw CliFailure(ExitCode::kUsage,
                     "upload needs a FILE, or --resume to continue an interrupted upload; see "
                     "quire upload --help");
  }
  // Everything local is checked before anything is sent: the file first. It is read chunk by
  // chunk as the upload goes, whatever its size.
  const UploadState file = Uploader::Identify(Q(file_));
  const std::uint32_t chunk_size =
      ParseChunkSize(chunk_size_.empty() ? kDefaultChunkSize : chunk_size_);
  const QString title = title_.empty() ? QFileInfo(file.file_path).fileName() : Q(title_);
  const QString type =
      type_.empty()
          ? QMimeDatabase().mimeTypeForFile(file.file_path, QMimeDatabase::MatchExtension).name()
          : Q(type_);
  const QString token = Token();
  Client client = Connect(token);
  const FeedSnapshot snapshot = client.List();
  QUrl start = snapshot.resumable_create_media_link;
  if (!to_.empty())
    start = DocResolver(snapshot.documents).Resolve(Q(to_)).resumable_edit_media_link;

  Uploader uploader(token, transport_->classifier(), StatePath(), progress, retries_.get());
  const DocRecord doc = uploader.Upload(start, to_.empty(), file, title, type, chunk_size);
  out() << "uploaded " << Describe(doc) << ": " << file.file_size << " bytes in "
        << uploader.put_answers() << " chunks" << retries_->Note() << '\n';
  retried_said_ = true;
}

void CommandLine::Config() { out() << settings_.Report(); }

void CommandLine::Demo() {
  DemoRunner runner(host_, Q(server_binary_));
  runner.Run();
}

}  // namespace quire_cli
