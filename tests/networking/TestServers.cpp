#include "networking/TestServers.h"

#include <arpa/inet.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <regex>

namespace vesk::test {
namespace {

constexpr const char* kNonce = "6e6f6e6365";

std::string md5(const std::string& text) {
  g_autofree gchar* hex = g_compute_checksum_for_string(G_CHECKSUM_MD5, text.data(), text.size());
  return hex;
}

// Whether the request answers our challenge by Digest (MD5, qop=auth) with kUser's password.
bool digestAccepts(const httplib::Request& request) {
  const std::string header = request.get_header_value("Authorization");
  std::map<std::string, std::string> p;
  const std::regex parameter(R"re((\w+)=(?:"([^"]*)"|([^,\s]*)))re");
  for (std::sregex_iterator i(header.begin(), header.end(), parameter), end; i != end; ++i)
    p[(*i)[1]] = (*i)[2].matched ? (*i)[2] : (*i)[3];
  const std::string ha1 = md5(std::string(kUser) + ":vesk:" + kPassword);
  const std::string ha2 = md5(request.method + ":" + p["uri"]);
  return p["response"] ==
         md5(ha1 + ":" + kNonce + ":" + p["nc"] + ":" + p["cnonce"] + ":" + p["qop"] + ":" + ha2);
}

// Makes the keys and certificates in the folder $1.
constexpr const char* kMakeCertificates = R"(set -e; cd "$1"
new="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3"
openssl req -x509 $new -keyout ca.key -out ca.pem -subj "/CN=Vesk Test CA" \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
openssl req -x509 $new -keyout self.key -out self.pem -subj /CN=localhost \
  -addext subjectAltName=DNS:localhost,IP:127.0.0.1
sign() {  # name, common name, extensions
  printf "$3" >$1.ext
  openssl req $new -keyout $1.key -out $1.csr -subj /CN=$2
  openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 3 -out $1.pem \
    -extfile $1.ext
}
sign server localhost "subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n"
sign client vesk-client "extendedKeyUsage=clientAuth\n"
openssl pkcs12 -export -in client.pem -inkey client.key -out client.p12 -passout pass:p12-secret
openssl pkey -in client.key -out client-encrypted.key -aes256 -passout pass:key-secret
mkdir -p root/etc/ssl/certs && cp ca.pem root/etc/ssl/certs/ca-certificates.crt)";

}  // namespace

TestCertificates::TestCertificates() {
  const auto made = runProgram("/bin/sh", {"-c", kMakeCertificates, "sh", folder_.path()},
                               environmentWithout({}), true);
  EXPECT_EQ(made.status, 0) << made.output;
}

TestServer::TestServer(const TestCertificates* certificates, Identity identity,
                       bool requireClientCertificate) {
  if (identity == Identity::None) {
    server_ = std::make_unique<httplib::Server>();
  } else {
    const std::string name = identity == Identity::CASigned ? "server" : "self";
    const std::string ca = requireClientCertificate ? certificates->file("ca.pem").string() : "";
    server_ = std::make_unique<httplib::SSLServer>(certificates->file(name + ".pem").c_str(),
                                                   certificates->file(name + ".key").c_str(),
                                                   ca.empty() ? nullptr : ca.c_str());
    scheme_ = "https";
  }
  httplib::Server& server = *server_;
  // Recorded before any answer goes out, so that a client that has its answer finds it here.
  server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    std::lock_guard lock(mutex_);
    seen_.push_back(request);
    // A file goes up as multipart/form-data without parts, which the library would refuse to
    // parse: the body is taken whole.
    if (request.is_multipart_form_data())
      const_cast<httplib::Request&>(request).headers.erase("Content-Type");
    return httplib::Server::HandlerResponse::Unhandled;
  });

  // Ranges (206), and 416 for one past the end, are the library's; /ignore-range plays a server
  // that knows nothing of them.
  server.Get("/(file|ignore-range)", [](const httplib::Request& request, httplib::Response& r) {
    if (request.matches[1] == "ignore-range") const_cast<httplib::Request&>(request).ranges.clear();
    r.set_content(resourceBytes(kResourceSize), "application/octet-stream");
  });
  // The directory user of a management server: /user/NAME/ is the server's address, NAME its
  // answer for every computer.
  server.Get(R"(/user/([^/]*)/dexlo2/dxresource/username)",
             [](const httplib::Request& request, httplib::Response& response) {
               response.set_content(request.matches[1], "text/plain");
             });
  server.Get("/redirect", [](const httplib::Request&, httplib::Response& response) {
    response.set_redirect("/file");
  });
  server.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
    response.status = std::stoi(request.matches[1]);
  });
  server.Get("/basic", [](const httplib::Request& request, httplib::Response& response) {
    // base64 of kUser:kPassword
    if (request.get_header_value("Authorization") == "Basic YWRtaW46cGEkJCAid29yZCI=")
      return response.set_content("basic ok", "text/plain");
    response.status = 401;
    response.set_header("WWW-Authenticate", "Basic realm=\"vesk\"");
  });
  server.Get("/digest", [](const httplib::Request& request, httplib::Response& response) {
    if (digestAccepts(request)) return response.set_content("digest ok", "text/plain");
    // Basic too, and first: a client must still choose the stronger.
    response.status = 401;
    response.set_header("WWW-Authenticate", "Basic realm=\"vesk\"");
    response.set_header("WWW-Authenticate",
                        std::string(R"(Digest realm="vesk", qop="auth", nonce=")") + kNonce + '"');
  });
  server.Get("/whoami", [](const httplib::Request& request, httplib::Response& response) {
    X509* peer = request.ssl ? SSL_get1_peer_certificate(request.ssl) : nullptr;
    char name[256] = "anonymous";
    if (peer) X509_NAME_oneline(X509_get_subject_name(peer), name, sizeof name);
    X509_free(peer);
    response.set_content(name, "text/plain");
  });
  server.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
    response.set_chunked_content_provider(
        "application/octet-stream", [sent = 0](std::size_t, httplib::DataSink& sink) mutable {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the server's pace
          sink.write(std::string(500, 'x').data(), 500);
          if (++sent == 16) sink.done();
          return true;
        });
  });
  // For the download benchmark.
  server.Get("/big", [](const httplib::Request&, httplib::Response& response) {
    auto pattern = std::make_shared<std::string>(resourceBytes(1 << 20));
    response.set_content_provider(
        kBigResourceSize, "application/octet-stream",
        [pattern](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          const std::size_t start = offset % pattern->size();
          return sink.write(pattern->data() + start, std::min(length, pattern->size() - start));
        });
  });
  server.Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.body, "application/octet-stream");
  });

  port_ = server.bind_to_any_port("127.0.0.1");
  EXPECT_GT(port_, 0) << "the test server could not listen";
  thread_ = std::jthread([&server] { server.listen_after_bind(); });
}

RawServer::RawServer(std::string reply, Ending ending) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  socklen_t length = sizeof address;
  EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length), 0);
  EXPECT_EQ(::listen(listener_, 8), 0);
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  if (ending == Ending::Hang) return;
  thread_ = std::thread([this, reply = std::move(reply), ending] {
    const linger abort{1, 0};  // closing sends a reset
    for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(fd)) {
      std::string head;
      for (char c; !head.ends_with("\r\n\r\n") && ::read(fd, &c, 1) == 1;) head += c;
      ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);  // blocks until all is sent or refused
      if (ending == Ending::Reset) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
  });
}

RawServer::~RawServer() {
  ::shutdown(listener_, SHUT_RDWR);  // wakes accept
  if (thread_.joinable()) thread_.join();
  ::close(listener_);
}

}  // namespace vesk::test
