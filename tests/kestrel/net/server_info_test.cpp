#include "kestrel/net/server_info.h"

#include <gtest/gtest.h>

namespace {

using kestrel::net::ServerInfo;

TEST(ServerInfoTest, ParsesSchemeHostAndPort) {
  ServerInfo https(QStringLiteral("https://Docs.Example/feeds?x=1"));
  EXPECT_TRUE(https.valid());
  EXPECT_EQ(https.scheme(), QStringLiteral("https"));
  EXPECT_EQ(https.host(), QStringLiteral("docs.example"));
  EXPECT_EQ(https.port(), 443);
  EXPECT_TRUE(https.secure());

  ServerInfo http(QStringLiteral("http://127.0.0.1:8080/a"));
  EXPECT_TRUE(http.valid());
  EXPECT_EQ(http.port(), 8080);
  EXPECT_FALSE(http.secure());
}

TEST(ServerInfoTest, RejectsOtherSchemesAndBrokenUrls) {
  EXPECT_FALSE(ServerInfo(QStringLiteral("ftp://h.example/a")).valid());
  EXPECT_FALSE(ServerInfo(QStringLiteral("file:///etc/passwd")).valid());
  EXPECT_FALSE(ServerInfo(QStringLiteral("not a url")).valid());
  EXPECT_FALSE(ServerInfo(QString()).valid());
  EXPECT_FALSE(ServerInfo(QStringLiteral("https:///nohost")).valid());
}

}  // namespace
