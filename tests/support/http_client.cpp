#include "tests/support/http_client.h"

#include <openssl/evp.h>
#include <strings.h>

namespace quire_test {
namespace {

std::size_t CollectBody(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

std::size_t CollectHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* headers = static_cast<std::vector<std::pair<std::string, std::string>>*>(user);
  std::string line(data, size * count);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.compare(0, 5, "HTTP/") == 0) {
    headers->clear();  // a new answer (after 100 Continue): keep only the final one's fields
  } else if (std::size_t colon = line.find(':'); colon != std::string::npos) {
    std::string value = line.substr(colon + 1);
    std::size_t start = value.find_first_not_of(' ');
    headers->emplace_back(line.substr(0, colon),
                          start == std::string::npos ? "" : value.substr(start));
  }
  return size * count;
}

}  // namespace

std::string HttpResult::Header(const std::string& name) const {
  for (const auto& header : headers) {
    if (::strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
  }
  return std::string();
}

bool HttpResult::Has(const std::string& name) const {
  for (const auto& header : headers) {
    if (::strcasecmp(header.first.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

HttpClient::HttpClient(int port, std::string ca_file)
    : curl_(curl_easy_init()), port_(port), ca_file_(std::move(ca_file)) {}

HttpClient::~HttpClient() { curl_easy_cleanup(curl_); }

HttpResult HttpClient::Send(const std::string& method, const std::string& url,
                            const std::vector<std::string>& headers, const std::string* body) {
  HttpResult result;
  CURL* c = curl_;
  curl_easy_reset(c);
  std::string port = std::to_string(port_);
  curl_slist* connect_to = nullptr;
  for (const char* host : {"docs.quire.example", "api.quire.example", "other.quire.example"}) {
    for (const char* service_port : {"443", "80"}) {
      connect_to = curl_slist_append(
          connect_to, (std::string(host) + ":" + service_port + ":127.0.0.1:" + port).c_str());
    }
  }
  curl_slist* lines = nullptr;
  for (const std::string& header : headers) lines = curl_slist_append(lines, header.c_str());
  // libcurl would add a form Content-Type to every body; the tests say what they mean.
  bool has_type = false;
  for (const std::string& header : headers) {
    if (::strncasecmp(header.c_str(), "Content-Type:", 13) == 0) has_type = true;
  }
  if (body != nullptr && !has_type) lines = curl_slist_append(lines, "Content-Type:");

  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_CONNECT_TO, connect_to);
  curl_easy_setopt(c, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, timeout_ms_);
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
  if (!ca_file_.empty()) curl_easy_setopt(c, CURLOPT_CAINFO, ca_file_.c_str());
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, lines);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, CollectBody);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &result.body);
  curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, CollectHeader);
  curl_easy_setopt(c, CURLOPT_HEADERDATA, &result.headers);
  if (method == "HEAD") {
    curl_easy_setopt(c, CURLOPT_NOBODY, 1L);
  } else if (body != nullptr) {
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
    if (method != "POST") curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (method != "GET") {
    curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  result.error = curl_easy_perform(c);
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &result.status);
  curl_slist_free_all(lines);
  curl_slist_free_all(connect_to);
  return result;
}

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr);
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    text.push_back(kDigits[digest[i] >> 4]);
    text.push_back(kDigits[digest[i] & 15]);
  }
  return text;
}

}  // namespace quire_test
