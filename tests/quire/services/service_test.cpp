#include "quire/services/service.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "quire/connection/connection.h"
#include "quire/services/docs_service.h"
#include "quire/services/o_auth_signers.h"
#include "quire/services/user_info_service.h"
#include "tests/quire/model/sample_documents.h"
#include "tests/quire/model/xml_tree.h"
#include "tests/quire/services/recording_connection.h"
#include "tests/support/test_support.h"

namespace quire_test::services {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the services and their callbacks

const std::vector<QString> kVersionLine = {QStringLiteral("Quire-Version: 3.0")};

// Exposes the connection of a bare Service so that a test can send a request through it.
class ProbeService : public Service {
 public:
  using Service::Service;
  IConnection* probe_connection() const { return connection(); }
};

// Sees every call of SetOAuth2AuthToken, including the one from SetOAuth2RefreshToken.
class WatchingService : public Service {
 public:
  WatchingService(ConnectionLog* log)
      : Service(QStringLiteral("3.0"), new RecordingConnection(log)) {}
  void SetOAuth2AuthToken(const QString& token) override {
    seen.push_back(token);
    Service::SetOAuth2AuthToken(token);
  }
  std::vector<QString> seen;
};

static_assert(!std::is_copy_constructible<Service>::value, "a service owns its connection");
static_assert(std::is_base_of<Service, DocsService>::value, "");
static_assert(std::is_base_of<Service, UserInfoService>::value, "");

class ServiceTest : public quire_test::ScriptedTest {
 protected:
  // Sends a GET through `service`'s connection, with a 200 answer scripted for it, and runs the
  // loop until its callback ran; returns how often the callback ran.
  int SendProbe(const ProbeService& service) {
    transport_.Enqueue(Http(200));
    ConnectionParams params{
        0, QStringLiteral("https://docs.quire.example/x"), nullptr, nullptr, false, 0};
    int calls = 0;
    service.probe_connection()->Request(params, [&](NetworkResponseInfo, QByteArray) { ++calls; });
    RunUntil([&] { return calls > 0; });
    return calls;
  }
};

TEST_F(ServiceTest, VirtualOperationsInSlotOrder) {
  // The destructor takes slots 0 and 1 (complete and deleting).
  EXPECT_EQ(quire_test::VirtualSlot(&Service::Cancel), 2);
  EXPECT_EQ(quire_test::VirtualSlot(&Service::SetOAuth2RefreshToken), 3);
  EXPECT_EQ(quire_test::VirtualSlot(&Service::OAuth2RefreshToken), 4);
  EXPECT_EQ(quire_test::VirtualSlot(&Service::SetOAuth2AuthToken), 5);
  EXPECT_EQ(quire_test::VirtualSlot(&Service::OAuth2AuthToken), 6);
  EXPECT_EQ(quire_test::VirtualSlot(&UserInfoService::GetUserEmail), 7);
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::GetFeed), 7);
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::GetEntryContent), 8);
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::CreateEntryWithContent), 9);
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::ModifyEntryContent), 10);
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::DeleteEntry), 11);
  // The completion handlers are plain members.
  EXPECT_EQ(quire_test::VirtualSlot(&DocsService::GetFeedDone), -1);
  EXPECT_EQ(quire_test::VirtualSlot(&UserInfoService::GetUserEmailDone), -1);
}

TEST_F(ServiceTest, DerivedServicesAddNoMembers) {
  EXPECT_EQ(sizeof(Service), sizeof(void*) + sizeof(IConnection*) + 2 * sizeof(QString) +
                                 sizeof(std::vector<QString>));
  EXPECT_EQ(sizeof(DocsService), sizeof(Service));
  EXPECT_EQ(sizeof(UserInfoService), sizeof(Service));
}

TEST_F(ServiceTest, NullConnectionMakesItsOwnConnectionThatSendsTheVersionLineOnce) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  {
    ProbeService service(QStringLiteral("3.0"), nullptr);
    ASSERT_NE(service.probe_connection(), nullptr);
    EXPECT_NE(dynamic_cast<kestrel::quire::Connection*>(service.probe_connection()), nullptr);
    EXPECT_GT(mm->live_allocations(), before) << "the connection comes from the memory manager";

    EXPECT_EQ(SendProbe(service), 1);
    ASSERT_EQ(transport_.requests().size(), 1u);
    EXPECT_EQ(Lines(transport_.requests()[0]), kVersionLine)
        << "Init received exactly one line, once";
  }
  EXPECT_EQ(mm->live_allocations(), before) << "the service deleted its own connection";
}

TEST_F(ServiceTest, VersionTextIsSubstitutedAsGiven) {
  ProbeService service(QStringLiteral("7.5 beta"), nullptr);
  EXPECT_EQ(SendProbe(service), 1);
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(Lines(transport_.requests()[0]),
            std::vector<QString>{QStringLiteral("Quire-Version: 7.5 beta")});
}

TEST_F(ServiceTest, CallersConnectionGetsInitOnceAndIsDeletedWithTheService) {
  ConnectionLog log;
  {
    Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
    ASSERT_EQ(log.init_calls.size(), 1u);
    EXPECT_EQ(log.init_calls[0], kVersionLine);
    EXPECT_TRUE(log.requests.empty()) << "nothing is sent at construction";
    EXPECT_EQ(log.destroyed, 0);
  }
  EXPECT_EQ(log.destroyed, 1);
}

TEST_F(ServiceTest, HostMadeServiceWithHostConnectionIsDeletedWithoutLeaks) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  ConnectionLog log;
  DocsService* docs = new DocsService(new RecordingConnection(&log));
  UserInfoService* user = new UserInfoService(new RecordingConnection(&log));
  EXPECT_EQ(mm->live_allocations(), before + 4)
      << "services and host connections are allocated through the memory manager";
  EXPECT_EQ(log.init_calls.size(), 2u);
  for (const auto& lines : log.init_calls) EXPECT_EQ(lines, kVersionLine);
  delete docs;
  kestrel::doDelete(user);
  EXPECT_EQ(log.destroyed, 2);
  EXPECT_EQ(mm->live_allocations(), before);
}

TEST_F(ServiceTest, DerivedConstructorsWithAndWithoutConnection) {
  ConnectionLog log;
  {
    DocsService with(new RecordingConnection(&log));
    UserInfoService with_user(new RecordingConnection(&log));
    DocsService without;
    UserInfoService without_user;
    DocsService explicit_null(nullptr);
    UserInfoService explicit_null_user(nullptr);
    EXPECT_EQ(log.init_calls.size(), 2u);

    // The services without a connection of the caller's send through a Connection of their own.
    transport_.SetResponder([](const kestrel::net::ScriptedTransport::Seen&) {
      kestrel::net::ScriptedTransport::Answer answer;
      answer.body = "email=a@b";
      return answer;
    });
    int calls = 0;
    without.GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
    explicit_null.GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
    without_user.GetUserEmail([&](NetworkResponseInfo, QString) { ++calls; });
    explicit_null_user.GetUserEmail([&](NetworkResponseInfo, QString) { ++calls; });
    RunUntil([&] { return calls == 4; });
    ASSERT_EQ(transport_.requests().size(), 4u);
    for (const auto& seen : transport_.requests()) EXPECT_EQ(Lines(seen), kVersionLine);
  }
  EXPECT_EQ(log.destroyed, 2);
}

TEST_F(ServiceTest, NewServiceHasNoTokensAndNoAuthorisationLine) {
  ConnectionLog log;
  Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
  EXPECT_TRUE(service.OAuth2AuthToken().isEmpty());
  EXPECT_TRUE(service.OAuth2RefreshToken().isEmpty());
  ASSERT_NE(service.authorization_headers(), nullptr);
  EXPECT_TRUE(service.authorization_headers()->empty());
}

TEST_F(ServiceTest, AccessTokenBuildsExactlyOneLine) {
  ConnectionLog log;
  Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
  const std::vector<QString>* lines = service.authorization_headers();

  service.SetOAuth2AuthToken(QStringLiteral("abc"));
  EXPECT_EQ(service.OAuth2AuthToken(), QStringLiteral("abc"));
  EXPECT_EQ(*lines, std::vector<QString>{QStringLiteral("Authorization: Bearer abc")});

  service.SetOAuth2AuthToken(QStringLiteral("xyz"));
  EXPECT_EQ(*lines, std::vector<QString>{QStringLiteral("Authorization: Bearer xyz")});
  EXPECT_EQ(service.authorization_headers(), lines) << "the pointer stays the same";

  service.SetOAuth2AuthToken(QStringLiteral(""));
  EXPECT_TRUE(lines->empty());
  EXPECT_TRUE(service.OAuth2AuthToken().isEmpty());

  service.SetOAuth2AuthToken(QStringLiteral("again"));
  service.SetOAuth2AuthToken(QString());
  EXPECT_TRUE(lines->empty()) << "a null token counts as empty";
}

TEST_F(ServiceTest, AccessTokenIsNotTrimmedQuotedOrEncoded) {
  ConnectionLog log;
  Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
  service.SetOAuth2AuthToken(QStringLiteral(" a b/c+=\"%20 "));
  EXPECT_EQ(*service.authorization_headers(),
            std::vector<QString>{QStringLiteral("Authorization: Bearer  a b/c+=\"%20 ")});
}

TEST_F(ServiceTest, EmptyRefreshTokenSignsOut) {
  ConnectionLog log;
  Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
  service.SetOAuth2AuthToken(QStringLiteral("access"));
  service.SetOAuth2RefreshToken(QStringLiteral("refresh"));
  EXPECT_EQ(service.OAuth2RefreshToken(), QStringLiteral("refresh"));
  EXPECT_EQ(service.OAuth2AuthToken(), QStringLiteral("access")) << "a non-empty refresh token "
                                                                    "leaves the access token";
  EXPECT_EQ(*service.authorization_headers(),
            std::vector<QString>{QStringLiteral("Authorization: Bearer access")});

  service.SetOAuth2RefreshToken(QString());
  EXPECT_TRUE(service.OAuth2RefreshToken().isEmpty());
  EXPECT_TRUE(service.OAuth2AuthToken().isEmpty());
  EXPECT_TRUE(service.authorization_headers()->empty());
}

TEST_F(ServiceTest, SignOutGoesThroughTheVirtualSetter) {
  ConnectionLog log;
  WatchingService service(&log);
  service.SetOAuth2RefreshToken(QStringLiteral("r"));
  EXPECT_TRUE(service.seen.empty());
  service.SetOAuth2RefreshToken(QStringLiteral(""));
  ASSERT_EQ(service.seen.size(), 1u);
  EXPECT_TRUE(service.seen[0].isEmpty());
}

TEST_F(ServiceTest, CancelReachesTheHostConnectionWithTheSameId) {
  ConnectionLog log;
  Service service(QStringLiteral("3.0"), new RecordingConnection(&log));
  service.Cancel(42);
  service.Cancel(0);
  EXPECT_EQ(log.cancels, (std::vector<unsigned int>{42, 0}));
}

TEST_F(ServiceTest, CancelWithTheLibrarysConnectionHasNoEffect) {
  DocsService service;
  transport_.Enqueue(Http(200), quire_test::FeedDocument(1));
  int calls = 0;
  std::size_t entries = 0;
  const unsigned int id = service.GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    ++calls;
    EXPECT_EQ(info.status, 0);
    entries = feed.entries.size();
  });
  service.Cancel(id);
  service.Cancel(id + 1000);
  RunUntilIdle();
  EXPECT_EQ(calls, 1) << "the request still completes";
  EXPECT_EQ(entries, 1u);
}

TEST_F(ServiceTest, OAuthSignersIsAnEmptyPolymorphicClass) {
  static_assert(std::is_polymorphic<OAuthSigners>::value, "");
  static_assert(std::has_virtual_destructor<OAuthSigners>::value, "");
  static_assert(std::is_default_constructible<OAuthSigners>::value, "");
  EXPECT_EQ(sizeof(OAuthSigners), sizeof(void*)) << "no data members";

  struct HostSigners : OAuthSigners {
    explicit HostSigners(int* destroyed) : destroyed_(destroyed) {}
    ~HostSigners() override { ++*destroyed_; }
    int* destroyed_;
  };
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  int destroyed = 0;
  OAuthSigners* signers = new HostSigners(&destroyed);
  EXPECT_EQ(mm->live_allocations(), before + 1);
  delete signers;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(mm->live_allocations(), before);
  OAuthSigners plain;
  (void)plain;
}

}  // namespace

}  // namespace quire_test::services
