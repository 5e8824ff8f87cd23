#include "networking/TestServers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>

#include "foundation/StringHelpers.h"

namespace vesk::test {
namespace {

std::string md5Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < length; ++i) {
    out.push_back(hex[digest[i] >> 4]);
    out.push_back(hex[digest[i] & 15]);
  }
  return out;
}

std::string base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

// The parameters of a Digest Authorization header: name="value" or name=value, by commas.
std::map<std::string, std::string> digestParameters(std::string_view header) {
  std::map<std::string, std::string> parameters;
  std::size_t i = 0;
  while (i < header.size()) {
    while (i < header.size() && (header[i] == ' ' || header[i] == ',')) ++i;
    const std::size_t equals = header.find('=', i);
    if (equals == std::string_view::npos) break;
    std::string name(header.substr(i, equals - i));
    i = equals + 1;
    std::string value;
    if (i < header.size() && header[i] == '"') {
      for (++i; i < header.size() && header[i] != '"'; ++i) {
        if (header[i] == '\\' && i + 1 < header.size()) ++i;
        value.push_back(header[i]);
      }
      ++i;
    } else {
      while (i < header.size() && header[i] != ',') value.push_back(header[i++]);
    }
    parameters[name] = value;
  }
  return parameters;
}

constexpr const char* kRealm = "vesk";
constexpr const char* kNonce = "6e6f6e63652d666f722d7465737473";

bool digestAccepts(const httplib::Request& request) {
  const std::string header = request.get_header_value("Authorization");
  if (header.rfind("Digest ", 0) != 0) return false;
  auto p = digestParameters(std::string_view(header).substr(7));
  if (p["username"] != kUser || p["realm"] != kRealm || p["nonce"] != kNonce) return false;
  const std::string ha1 = md5Hex(std::string(kUser) + ":" + kRealm + ":" + kPassword);
  const std::string ha2 = md5Hex(request.method + ":" + p["uri"]);
  const std::string expected =
      md5Hex(ha1 + ":" + kNonce + ":" + p["nc"] + ":" + p["cnonce"] + ":" + p["qop"] + ":" + ha2);
  return p["response"] == expected;
}

}  // namespace

std::string resourceBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 0x12345678;
  for (auto& c : bytes) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

std::string SeenRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

bool SeenRequest::has(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (::strcasecmp(key.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

TestCertificates::TestCertificates() {
  const auto& dir = folder_.path();
  const std::vector<std::string> ec = {
      "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "3"};
  auto request = [&](std::vector<std::string> head, std::vector<std::string> tail) {
    head.insert(head.end(), ec.begin(), ec.end());
    head.insert(head.end(), tail.begin(), tail.end());
    openssl(head);
  };
  request({"req", "-x509"}, {"-keyout", dir / "ca.key", "-out", dir / "ca.pem", "-subj",
                             "/CN=Vesk Test CA", "-addext", "basicConstraints=critical,CA:TRUE",
                             "-addext", "keyUsage=critical,keyCertSign,cRLSign"});
  request({"req", "-x509"},
          {"-keyout", dir / "self.key", "-out", dir / "self.pem", "-subj", "/CN=localhost",
           "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"});
  request({"req", "-x509"},
          {"-keyout", dir / "stranger.key", "-out", dir / "stranger.pem", "-subj", "/CN=stranger"});
  folder_.write("server.ext", "subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n");
  folder_.write("client.ext", "extendedKeyUsage=clientAuth\n");
  for (const std::string name : {"server", "client"}) {
    request({"req"}, {"-keyout", dir / (name + ".key"), "-out", dir / (name + ".csr"), "-subj",
                      name == "server" ? "/CN=localhost" : "/CN=vesk-client"});
    openssl({"x509", "-req", "-in", dir / (name + ".csr"), "-CA", dir / "ca.pem", "-CAkey",
             dir / "ca.key", "-CAcreateserial", "-days", "3", "-out", dir / (name + ".pem"),
             "-extfile", dir / (name + ".ext")});
  }
  openssl({"pkcs12", "-export", "-in", dir / "client.pem", "-inkey", dir / "client.key", "-out",
           dir / "client.p12", "-passout", "pass:p12-secret"});
  openssl({"pkey", "-in", dir / "client.key", "-out", dir / "client-encrypted.key", "-aes256",
           "-passout", "pass:key-secret"});
  root_ = dir / "root";
  folder_.write("root/etc/ssl/certs/ca-certificates.crt", readFile(dir / "ca.pem"));
}

void TestCertificates::openssl(const std::vector<std::string>& arguments) const {
  const ProgramResult result =
      runProgram("/usr/bin/openssl", arguments, environmentWithout({}), true);
  ASSERT_EQ(result.status, 0) << result.output;
}

class TestServer::Impl {
 public:
  std::unique_ptr<httplib::Server> server;
  mutable std::mutex mutex;
  std::vector<SeenRequest> seen;
};

TestServer::TestServer(const TestCertificates* certificates, Identity identity,
                       bool requireClientCertificate)
    : impl_(std::make_unique<Impl>()) {
  if (identity == Identity::None) {
    impl_->server = std::make_unique<httplib::Server>();
    scheme_ = "http";
  } else {
    const std::string name = identity == Identity::CASigned ? "server" : "self";
    const std::string cert = certificates->file(name + ".pem");
    const std::string key = certificates->file(name + ".key");
    const std::string clientCA = certificates->file("ca.pem");
    impl_->server = std::make_unique<httplib::SSLServer>(
        cert.c_str(), key.c_str(), requireClientCertificate ? clientCA.c_str() : nullptr);
    scheme_ = "https";
  }
  httplib::Server& server = *impl_->server;
  Impl* impl = impl_.get();
  // Recorded before any answer goes out, so that a client that has its answer finds it here.
  server.set_pre_routing_handler([impl](const httplib::Request& request, httplib::Response&) {
    SeenRequest seen{request.method, request.path, {}, request.body};
    for (const auto& [name, value] : request.headers) seen.headers.emplace_back(name, value);
    std::lock_guard lock(impl->mutex);
    impl->seen.push_back(std::move(seen));
    return httplib::Server::HandlerResponse::Unhandled;
  });

  server.Get("/file", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(resourceBytes(kResourceSize), "application/octet-stream");
  });
  server.Get("/ignore-range", [](const httplib::Request& request, httplib::Response& response) {
    // A server that knows nothing of ranges: the library would otherwise cut the body.
    const_cast<httplib::Request&>(request).ranges.clear();
    response.set_content(resourceBytes(kResourceSize), "application/octet-stream");
  });
  server.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
    response.status = std::stoi(request.matches[1]);
  });
  server.Get("/basic", [](const httplib::Request& request, httplib::Response& response) {
    if (request.get_header_value("Authorization") ==
        "Basic " + base64(std::string(kUser) + ":" + kPassword)) {
      response.set_content("basic ok", "text/plain");
      return;
    }
    response.status = 401;
    response.set_header("WWW-Authenticate", "Basic realm=\"vesk\"");
    response.set_content("who are you?", "text/plain");
  });
  server.Get("/digest", [](const httplib::Request& request, httplib::Response& response) {
    if (digestAccepts(request)) {
      response.set_content("digest ok", "text/plain");
      return;
    }
    response.status = 401;
    response.set_header("WWW-Authenticate", std::string("Digest realm=\"") + kRealm +
                                                "\", qop=\"auth\", algorithm=MD5, nonce=\"" +
                                                kNonce + "\"");
    response.set_content("who are you?", "text/plain");
  });
  server.Get("/whoami", [](const httplib::Request& request, httplib::Response& response) {
    std::string who = "anonymous";
    if (request.ssl != nullptr) {
      if (X509* peer = SSL_get1_peer_certificate(request.ssl)) {
        char name[256];
        X509_NAME_oneline(X509_get_subject_name(peer), name, sizeof name);
        who = name;
        X509_free(peer);
      }
    }
    response.set_content(who, "text/plain");
  });
  server.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
    response.set_chunked_content_provider(
        "application/octet-stream", [sent = 0](std::size_t, httplib::DataSink& sink) mutable {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the server's pace
          const std::string piece(500, 'x');
          sink.write(piece.data(), piece.size());
          if (++sent == 16) sink.done();
          return true;
        });
  });
  server.Get("/big", [](const httplib::Request&, httplib::Response& response) {
    auto pattern = std::make_shared<std::string>(resourceBytes(1 << 20));
    response.set_content_provider(
        kBigResourceSize, "application/octet-stream",
        [pattern](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          const std::size_t start = offset % pattern->size();
          const std::size_t n = std::min(length, pattern->size() - start);
          return sink.write(pattern->data() + start, n);
        });
  });
  server.Get("/redirect", [](const httplib::Request&, httplib::Response& response) {
    response.set_redirect("/file");
  });

  port_ = server.bind_to_any_port("127.0.0.1");
  EXPECT_GT(port_, 0) << "the test server could not listen";
  thread_ = std::thread([&server] { server.listen_after_bind(); });
}

TestServer::~TestServer() {
  impl_->server->stop();
  if (thread_.joinable()) thread_.join();
}

std::string TestServer::url(const std::string& path, const std::string& host) const {
  return scheme_ + "://" + host + ":" + std::to_string(port_) + path;
}

std::vector<SeenRequest> TestServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->seen;
}

RawServer::RawServer(std::string reply, Ending ending) : reply_(std::move(reply)), ending_(ending) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length), 0);
  EXPECT_EQ(::listen(listener_, 8), 0);
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

RawServer::~RawServer() {
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);  // wakes accept
  thread_.join();
  ::close(listener_);
  for (const int fd : open_) ::close(fd);
}

std::vector<std::string> RawServer::heads() const {
  std::lock_guard lock(mutex_);
  return heads_;
}

std::string RawServer::url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/raw"; }

void RawServer::serve() {
  while (!stopping_) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      head.append(buffer, static_cast<std::size_t>(n));
    }
    const std::size_t end = head.find("\r\n\r\n");
    std::string body = end == std::string::npos ? "" : head.substr(end + 4);
    head.resize(std::min(head.size(), end));
    {
      std::lock_guard lock(mutex_);
      heads_.push_back(head);
    }
    std::string reply = reply_;
    if (ending_ == Ending::Echo) {
      std::size_t expected = 0;
      if (auto value =
              findValueBetween(lowercaseString(head) + "\r\n", "content-length: ", "\r\n", 0))
        expected = std::stoul(*value);
      while (body.size() < expected) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        body.append(buffer, static_cast<std::size_t>(n));
      }
      reply =
          "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    std::string_view rest = reply;
    while (!rest.empty()) {
      const ssize_t n = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    if (ending_ == Ending::Hang) {
      std::lock_guard lock(mutex_);
      open_.push_back(fd);
      continue;
    }
    if (ending_ == Ending::Reset) {
      const linger abort{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
    ::close(fd);
  }
}

}  // namespace vesk::test
