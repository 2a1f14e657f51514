#include "tools/quire/failure_classifier.h"

#include <gtest/gtest.h>

#include "kestrel/net/network_status.h"
#include "quire/connection/connection.h"
#include "tests/support/test_support.h"
#include "tools/quire/network_diagnostics.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using quire_cli::ExitCode;
using quire_cli::FailureClassifier;
using quire_cli::NetworkDiagnostics;
using quire_test::Http;
namespace status = kestrel::net::status;

TEST(FailureClassifierTest, EachStatusFallsIntoItsClass) {
  const FailureClassifier classifier(nullptr, 60);
  const std::pair<int, ExitCode> cases[] = {
      {1, ExitCode::kUnreadableAnswer},   {2, ExitCode::kNetwork},
      {401, ExitCode::kTokenRefused},     {403, ExitCode::kTokenRefused},
      {404, ExitCode::kNotFound},         {410, ExitCode::kNotFound},
      {412, ExitCode::kEntityTagChanged}, {400, ExitCode::kServerError},
      {416, ExitCode::kServerError},      {500, ExitCode::kServerError},
      {503, ExitCode::kServerError},      {302, ExitCode::kServerError},
      {308, ExitCode::kServerError},
  };
  for (const auto& [number, code] : cases) {
    const auto diagnosis = classifier.Diagnose(number, "listing the documents");
    EXPECT_EQ(diagnosis.code, code) << number;
    EXPECT_NE(diagnosis.what.find("while listing the documents"), std::string::npos) << number;
    EXPECT_FALSE(diagnosis.todo.empty()) << number;
  }
}

TEST(FailureClassifierTest, MessagesSayWhatWentWrongAndWhatToDo) {
  const FailureClassifier classifier(nullptr, 60);
  const quire_cli::CliFailure refused = classifier.Classify(401, "listing the documents");
  EXPECT_EQ(refused.message(),
            "the service refused the token (HTTP 401) while listing the documents; check "
            "QUIRE_TOKEN or the file given to --token-file");
  const quire_cli::CliFailure changed = classifier.Classify(412, "deleting \"a\"");
  EXPECT_NE(changed.message().find("changed since it was listed (HTTP 412)"), std::string::npos);
  EXPECT_NE(classifier.Classify(503, "x").message().find("HTTP 503"), std::string::npos);
  EXPECT_NE(classifier.Classify(1, "x").message().find("could not be read"), std::string::npos);
}

class FailureDiagnosisTest : public quire_test::ScriptedTest {
 protected:
  // Sends one GET through a Connection over the diagnostics, answered with `code`, and describes
  // the status it ends with.
  FailureClassifier::Diagnosis Diagnose(std::uint32_t code) {
    NetworkDiagnostics diagnostics(&transport_, 7);
    kestrel::net::TransportRegistry::SetDefault(&diagnostics);
    transport_.Enqueue(code);
    Connection connection;
    connection.Init({QStringLiteral("Quire-Version: 3.0")});
    ConnectionParams params{};
    params.url = QStringLiteral("https://docs.quire.example:8443/feeds/default/private/full");
    int calls = 0;
    FailureClassifier::Diagnosis diagnosis{};
    const FailureClassifier classifier(&diagnostics, 7);
    connection.Request(params, [&](NetworkResponseInfo info, QByteArray) {
      ++calls;
      diagnosis = classifier.Diagnose(info.status, "listing the documents");
    });
    RunUntil([&] { return calls > 0; });
    EXPECT_EQ(calls, 1);
    kestrel::MainLoop::Default()->RunUntilIdle();
    kestrel::net::TransportRegistry::SetDefault(&transport_);
    return diagnosis;
  }
};

TEST_F(FailureDiagnosisTest, AGenericFailureIsExplainedByTheNetworkLayersCode) {
  auto d = Diagnose(status::kErrorConnectionRefused);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_NE(d.what.find("cannot connect to docs.quire.example:8443 (connection refused)"),
            std::string::npos)
      << d.what;
  EXPECT_NE(d.todo.find("--server"), std::string::npos);

  d = Diagnose(status::kErrorTls);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_NE(d.todo.find("--cacert"), std::string::npos);
  // A refused certificate reads exactly like any other TLS failure.
  const auto tls = Diagnose(status::kErrorTls);
  d = Diagnose(status::kErrorCertificate);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_EQ(d.what, tls.what);
  EXPECT_EQ(d.todo, tls.todo);

  d = Diagnose(status::kErrorTimedOut);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_NE(d.what.find("for 7 s"), std::string::npos) << d.what;
  EXPECT_NE(d.todo.find("--timeout"), std::string::npos);

  d = Diagnose(status::kErrorNameNotResolved);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_NE(d.what.find("could not be resolved"), std::string::npos);

  d = Diagnose(status::kErrorConnectionReset);
  EXPECT_EQ(d.code, ExitCode::kNetwork);
  EXPECT_NE(d.todo.find("--resume"), std::string::npos);
}

TEST_F(FailureDiagnosisTest, AnHttpStatusThatTheLibraryFoldsIntoFailureKeepsItsNumber) {
  auto d = Diagnose(Http(429));
  EXPECT_EQ(d.code, ExitCode::kServerError);
  EXPECT_NE(d.what.find("HTTP 429"), std::string::npos) << d.what;
  d = Diagnose(Http(507));
  EXPECT_EQ(d.code, ExitCode::kServerError);
  EXPECT_NE(d.what.find("HTTP 507"), std::string::npos) << d.what;
  d = Diagnose(Http(301));
  EXPECT_EQ(d.code, ExitCode::kServerError);
  EXPECT_NE(d.what.find("redirection (HTTP 301)"), std::string::npos) << d.what;
}

TEST_F(FailureDiagnosisTest, TheDiagnosticsPassTheCommandsTimeOutAndReleaseEveryRequest) {
  NetworkDiagnostics diagnostics(&transport_, 3.5);
  kestrel::net::TransportRegistry::SetDefault(&diagnostics);
  EXPECT_FALSE(diagnostics.LastCompleted().known);
  transport_.Enqueue(Http(200), QByteArray("a"));
  transport_.Enqueue(Http(404), QByteArray("b"));
  {
    Connection connection;
    connection.Init({});
    ConnectionParams params{};
    params.url = QStringLiteral("https://docs.quire.example/one");
    int calls = 0;
    connection.Request(params, [&](NetworkResponseInfo, QByteArray) { ++calls; });
    RunUntil([&] { return calls == 1; });
    params.url = QStringLiteral("https://docs.quire.example/two");
    connection.Request(params, [&](NetworkResponseInfo info, QByteArray) {
      ++calls;
      const NetworkDiagnostics::Outcome outcome = diagnostics.LastCompleted();
      EXPECT_TRUE(outcome.known);
      EXPECT_EQ(outcome.code, Http(404));
      EXPECT_EQ(outcome.url, QStringLiteral("https://docs.quire.example/two"));
      EXPECT_EQ(info.status, 404);
    });
    RunUntil([&] { return calls == 2; });
  }
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[0].options.stall_timeout_seconds, 3.5);
  EXPECT_EQ(transport_.requests()[1].options.stall_timeout_seconds, 3.5);
  kestrel::MainLoop::Default()->RunUntilIdle();
  kestrel::net::TransportRegistry::SetDefault(&transport_);
  // The fixture checks that every request was released.
}

}  // namespace
