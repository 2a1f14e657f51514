// How the command takes its proxy from the environment and from --proxy, as curl does.
#include "tools/quire/proxy_environment.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tools/quire/cli_failure.h"

namespace {

using quire_cli::ProxyEnvironment;

ProxyEnvironment ReadFrom(const std::map<std::string, std::string>& variables) {
  return ProxyEnvironment::Read([&](const char* name) -> const char* {
    auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
  });
}

TEST(ProxyEnvironmentTest, LowerCaseNamesComeFirst) {
  const ProxyEnvironment proxy = ReadFrom({{"https_proxy", "http://lower:1"},
                                           {"HTTPS_PROXY", "http://upper:2"},
                                           {"no_proxy", "a.example"},
                                           {"NO_PROXY", "b.example"}});
  EXPECT_EQ(proxy.https_proxy, QStringLiteral("http://lower:1"));
  EXPECT_EQ(proxy.https_origin, "https_proxy");
  EXPECT_EQ(proxy.no_proxy, QStringLiteral("a.example"));
}

TEST(ProxyEnvironmentTest, UpperCaseNamesWhenTheLowerAreUnsetOrEmpty) {
  const ProxyEnvironment proxy =
      ReadFrom({{"https_proxy", ""}, {"HTTPS_PROXY", "http://upper:2"}, {"NO_PROXY", "b.example"}});
  EXPECT_EQ(proxy.https_proxy, QStringLiteral("http://upper:2"));
  EXPECT_EQ(proxy.https_origin, "HTTPS_PROXY");
  EXPECT_EQ(proxy.no_proxy, QStringLiteral("b.example"));
}

TEST(ProxyEnvironmentTest, HttpProxyIsReadOnlyInLowerCase) {
  EXPECT_TRUE(ReadFrom({{"HTTP_PROXY", "http://cgi:1"}}).http_proxy.isEmpty());
  EXPECT_EQ(ReadFrom({{"http_proxy", "http://plain:1"}}).http_proxy,
            QStringLiteral("http://plain:1"));
}

TEST(ProxyEnvironmentTest, ProxyOptionOverridesBothAndKeepsNoProxy) {
  ProxyEnvironment proxy =
      ReadFrom({{"https_proxy", "http://env:1"}, {"no_proxy", "intranet.example"}});
  proxy.Override(QStringLiteral(" http://option:3128 "));
  EXPECT_EQ(proxy.https_proxy, QStringLiteral("http://option:3128"));
  EXPECT_EQ(proxy.http_proxy, QStringLiteral("http://option:3128"));
  EXPECT_EQ(proxy.https_origin, "--proxy");
  EXPECT_EQ(proxy.no_proxy, QStringLiteral("intranet.example"));
  proxy.Override(QString());
  EXPECT_TRUE(proxy.https_proxy.isEmpty());
}

TEST(ProxyEnvironmentTest, CheckAcceptsProxyUrlsAndRefusesOthers) {
  ProxyEnvironment proxy;
  for (const char* good : {"http://proxy.example:3128", "proxy.example:3128",
                           "https://u:p@proxy.example", "socks5h://127.0.0.1:1080", ""}) {
    proxy.Override(QString::fromLatin1(good));
    EXPECT_NO_THROW(proxy.Check()) << good;
  }
  for (const char* bad : {"ftp://proxy.example", "http://proxy.example:3128/path", "http://"}) {
    proxy.Override(QString::fromLatin1(bad));
    EXPECT_THROW(proxy.Check(), quire_cli::CliFailure) << bad;
  }
  proxy.Override(QString());
  proxy.no_proxy = QStringLiteral("localhost, .example.org,10.0.0.0/8,[::1],*");
  EXPECT_NO_THROW(proxy.Check());
  proxy.no_proxy = QStringLiteral("good.example,bad;entry");
  EXPECT_THROW(proxy.Check(), quire_cli::CliFailure);
}

}  // namespace
