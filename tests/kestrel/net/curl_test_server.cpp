#include "tests/kestrel/net/curl_test_server.h"

#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <vector>

#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

constexpr std::size_t kChunk = 256 * 1024;

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

CurlTestServer::CurlTestServer(const std::string& certificate_file, const std::string& key_file) {
  if (certificate_file.empty()) {
    server_ = std::make_unique<httplib::Server>();
  } else {
    server_ = std::make_unique<httplib::SSLServer>(certificate_file.c_str(), key_file.c_str());
  }
  httplib::Server& server = *server_;
  server.set_keep_alive_max_count(1000000);
  server.set_keep_alive_timeout(5);
  server.set_socket_options([](int socket) {
    int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    // Answers go out at once instead of waiting for the client's delayed acknowledgement.
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  });

  // Recorded before the answer goes out, so that a client that has its answer sees the record.
  server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_;
    client_ports_.insert(request.remote_port);
    last_headers_.clear();
    for (const auto& header : request.headers) {
      last_headers_.emplace(Lower(header.first), header.second);
    }
    last_method_ = request.method;
    last_path_ = request.path;
    return httplib::Server::HandlerResponse::Unhandled;
  });

  server.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
    const int status = std::stoi(request.matches[1]);
    response.status = status;
    response.set_header("X-Status", std::to_string(status));
    if (status >= 300 && status < 400) response.set_header("Location", "/status/200");
    if (status != 204 && status != 304) {
      response.set_content("status " + std::to_string(status), "text/plain");
    }
  });

  server.Get(R"(/bytes/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
    const std::size_t size = std::stoull(request.matches[1]);
    const std::uint64_t from =
        request.has_param("from") ? std::stoull(request.get_param_value("from")) : 0;
    if (size <= kChunk) {
      std::string body(size, '\0');
      FillPattern(&body[0], from, size);
      response.set_content(body, "application/octet-stream");
      return;
    }
    response.set_content_provider(
        size, "application/octet-stream",
        [from](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          std::vector<char> chunk(std::min(length, kChunk));
          FillPattern(chunk.data(), from + offset, chunk.size());
          return sink.write(chunk.data(), chunk.size());
        });
  });

  server.Get("/truncated", [](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(1024 * 1024, "application/octet-stream",
                                  [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                    if (offset >= 64 * 1024) return false;  // drops the connection
                                    std::vector<char> chunk(64 * 1024);
                                    FillPattern(chunk.data(), offset, chunk.size());
                                    return sink.write(chunk.data(), chunk.size());
                                  });
  });

  auto check_upload = [](const httplib::Request& request, httplib::Response& response) {
    const std::string& body = request.body;
    const std::size_t mismatch = FindPatternMismatch(body.data(), 0, body.size());
    if (mismatch == body.size()) {
      response.set_content("match " + std::to_string(body.size()), "text/plain");
    } else {
      response.set_content(
          "mismatch at " + std::to_string(mismatch) + " of " + std::to_string(body.size()),
          "text/plain");
    }
  };
  server.Put("/upload", check_upload);
  server.Post("/upload", check_upload);

  port_ = server.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) return;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!server_->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) port_ = -1;
}

CurlTestServer::~CurlTestServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

int CurlTestServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::set<int> CurlTestServer::client_ports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return client_ports_;
}

std::multimap<std::string, std::string> CurlTestServer::last_headers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return last_headers_;
}

std::string CurlTestServer::last_method() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return last_method_;
}

std::string CurlTestServer::last_path() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return last_path_;
}

}  // namespace quire_test::curl
