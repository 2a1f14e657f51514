#include "tests/kestrel/net/curl_test_certificates.h"

namespace curl_test {

CurlTestCertificates::CurlTestCertificates()
    : server_(certificates_.Make(
          "server", "DNS:localhost,DNS:docs.quire.example,DNS:api.quire.example,IP:127.0.0.1",
          -3600, 30L * 24 * 3600, false)) {}

}  // namespace curl_test
