// Hostile documents: entity expansion, external entities and DTDs, deep nesting. Each is refused,
// without touching the network or the file system, and without crashing. The time and memory they
// take are printed (the benchmark measures them properly); they are not asserted here.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/xml/xml_reader.h"
#include "tests/kestrel/xml/xml_test_fixture.h"

namespace {

using namespace quire_test::xml;  // NOLINT(build/namespaces): the XML tests' helpers

class XmlReaderSafetyTest : public quire_test::xml::XmlTest {
 protected:
  // Parses `document`, expects it refused, and prints how long that took.
  void ExpectRefusedAndReport(const char* what, const std::string& document) {
    const auto start = std::chrono::steady_clock::now();
    auto reader = Read(document);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(reader->GetErrorsOccurred()) << what;
    EXPECT_EQ(reader->GetRootNode(), nullptr) << what;
    std::printf("[ figures  ] %s (%zu bytes): refused in %.3f ms: %s\n", what, document.size(), ms,
                U8(reader->error_message()).c_str());
  }
};

std::string BillionLaughs() {
  std::string document = "<?xml version='1.0'?>\n<!DOCTYPE lolz [\n <!ENTITY lol 'lol'>\n";
  for (int i = 1; i <= 9; ++i) {
    document += " <!ENTITY lol" + std::to_string(i) + " '";
    const std::string previous = i == 1 ? "lol" : "lol" + std::to_string(i - 1);
    for (int k = 0; k < 10; ++k) document += "&" + previous + ";";
    document += "'>\n";
  }
  return document + "]>\n<lolz>&lol9;</lolz>\n";
}

TEST_F(XmlReaderSafetyTest, EntityExpansionBombIsRefused) {
  ExpectRefusedAndReport("billion laughs", BillionLaughs());
  // Quadratic blow-up: one large entity referenced many times.
  std::string quadratic = "<!DOCTYPE a [<!ENTITY x '" + std::string(100000, 'x') + "'>]><a>";
  for (int i = 0; i < 10000; ++i) quadratic += "&x;";
  ExpectRefusedAndReport("quadratic blow-up", quadratic + "</a>");
  // Without their DTD the same references are undefined entities.
  ExpectRefusedAndReport("bomb reference without its DTD", "<lolz>&lol9;</lolz>");
}

TEST_F(XmlReaderSafetyTest, EveryDocumentTypeDeclarationIsRefused) {
  quire_test::xml::ExpectRefused({
      "<!DOCTYPE a><a/>",
      "<!DOCTYPE a []><a/>",
      "<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>",
      "<!DOCTYPE a [<!ENTITY x 'y'>]><a/>",
      "<!DOCTYPE a [<!ATTLIST a b CDATA 'default'>]><a/>",
      "<!DOCTYPE a [<!ENTITY % p 'x'> %p;]><a/>",
      "<?xml version='1.0'?>\n<!DOCTYPE a PUBLIC '-//x//y' 'y.dtd'><a/>",
      "<a/><!DOCTYPE a>",
  });
}

// A local listener that no parse may connect to.
class Listener {
 public:
  Listener() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd_, 8) != 0) {
      return;
    }
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() {
    if (fd_ >= 0) close(fd_);
  }
  int port() const { return port_; }
  // True when a connection is waiting to be accepted.
  bool Contacted() const {
    pollfd p{fd_, POLLIN, 0};
    return poll(&p, 1, 50) > 0;
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

TEST_F(XmlReaderSafetyTest, ExternalEntitiesAndDtdsAreNeverFetched) {
  Listener listener;
  ASSERT_NE(listener.port(), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(listener.port());

  // A file whose opening would show: watched for any access.
  char path[] = "/tmp/quire_xml_safety_XXXXXX";
  const int file = mkstemp(path);
  ASSERT_GE(file, 0);
  ASSERT_EQ(write(file, "secret", 6), 6);
  close(file);
  const int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, path, IN_OPEN | IN_ACCESS), 0);

  const std::string documents[] = {
      "<!DOCTYPE a SYSTEM '" + url + "/a.dtd'><a/>",
      "<!DOCTYPE a [<!ENTITY x SYSTEM '" + url + "/x'>]><a>&x;</a>",
      "<!DOCTYPE a [<!ENTITY % p SYSTEM '" + url + "/p.dtd'> %p;]><a/>",
      "<!DOCTYPE a [<!ENTITY x SYSTEM 'file://" + std::string(path) + "'>]><a>&x;</a>",
      "<!DOCTYPE a SYSTEM '" + std::string(path) + "'><a/>",
      "<?xml-stylesheet href='" + url +
          "/s.xsl'?><a xmlns:xi='http://www.w3.org/2001/XInclude'>"
          "<xi:include href='" +
          url + "/i.xml'/><xi:include href='" + std::string(path) + "' parse='text'/></a>",
  };
  for (const std::string& document : documents) {
    auto reader = Read(document);
    // The last document is well-formed: it is read, and its references stay plain text.
    if (document.rfind("<?xml-stylesheet", 0) == 0) {
      ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
      EXPECT_EQ(reader->GetRootNode()->first_child->name, QStringLiteral("xi:include"));
    } else {
      EXPECT_TRUE(reader->GetErrorsOccurred()) << document;
    }
  }
  EXPECT_FALSE(listener.Contacted()) << "a parse connected to " << url;
  char events[4096];
  EXPECT_LT(read(watch, events, sizeof events), 0) << "a parse opened " << path;
  close(watch);
  unlink(path);
}

TEST_F(XmlReaderSafetyTest, DeepNestingIsAnErrorNotACrash) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  for (int i = 0; i < 100000; ++i) deep += "</a>";
  ExpectRefusedAndReport("100,000 nested elements", deep);
  // Unclosed, with attributes and text at every level (ending in a tag, so that the whole
  // document is parsed before the fault shows).
  std::string unclosed;
  for (int i = 0; i < 100000; ++i) unclosed += "<a b='&amp;'>t";
  ExpectRefusedAndReport("100,000 unclosed elements", unclosed + "<z/>");
  // One level beyond the limit.
  std::string just_too_deep;
  const int depth = kestrel::XmlReader::kMaxDepth + 1;
  for (int i = 0; i < depth; ++i) just_too_deep += "<a>";
  for (int i = 0; i < depth; ++i) just_too_deep += "</a>";
  ExpectRefusedAndReport("one level too deep", just_too_deep);
}

TEST_F(XmlReaderSafetyTest, DeepNestingInsideCommentsAndCdataIsJustText) {
  const std::string many(200000, '<');
  auto reader = Read("<a><!-- " + many + " --><![CDATA[" + many + "]]></a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->text.size(), 200000);
}

TEST_F(XmlReaderSafetyTest, WideDocumentsAreRead) {
  std::string wide = "<r>";
  for (int i = 0; i < 100000; ++i) wide += "<e/>";
  wide += "</r>";
  auto reader = Read(wide);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(quire_test::xml::ChildCount(reader->GetRootNode()), 100000);
}

TEST_F(XmlReaderSafetyTest, ReadersOnSeveralThreadsAreIndependent) {
  // Nothing is shared between readers: documents parsed at once on four threads all come out right.
  std::vector<std::string> documents;
  for (int t = 0; t < 4; ++t) {
    std::string document = "<r>";
    for (int i = 0; i < 2000; ++i) {
      document += "<e v='" + std::to_string(t) + "-" + std::to_string(i % 50) + "'>" +
                  std::to_string(t) + "</e>";
    }
    documents.push_back(document + "</r>");
  }
  std::vector<int> right(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round) {
        kestrel::XmlReader reader(documents[t].data(), documents[t].size());
        bool all = !reader.GetErrorsOccurred();
        int i = 0;
        for (auto* e = all ? reader.GetRootNode()->first_child : nullptr; e != nullptr;
             e = e->next_sibling, ++i) {
          all = all && e->text == QString::number(t) &&
                e->attributes[0].value == QStringLiteral("%1-%2").arg(t).arg(i % 50);
        }
        if (all && i == 2000) ++right[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(right[t], 5) << t;
}

}  // namespace
