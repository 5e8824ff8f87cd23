#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "helpers/TestSupport.h"

namespace vesk::test {

// Keys and certificates made with the openssl command for one test: a CA; a server
// certificate it signed for localhost only; a self-signed one for localhost and 127.0.0.1;
// a client identity it signed (PEM, an encrypted key, and PKCS#12 with "p12-secret"); and a
// client identity from a stranger.
class TestCertificates {
 public:
  TestCertificates();
  std::filesystem::path file(const std::string& name) const { return folder_.path() / name; }
  // A client root whose trust bundle holds only our CA.
  const std::filesystem::path& trustingRoot() const { return root_; }

 private:
  void openssl(const std::vector<std::string>& arguments) const;
  TemporaryFolder folder_;
  std::filesystem::path root_;
};

// What a server saw of one request.
struct SeenRequest {
  std::string method;
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::string header(const std::string& name) const;  // "" when absent
  bool has(const std::string& name) const;
};

// The bytes every resource of the servers is made of: `size` bytes of a fixed pattern.
std::string resourceBytes(std::size_t size);
inline constexpr std::size_t kResourceSize = 256 * 1024;
inline constexpr std::size_t kBigResourceSize = 100u * 1024 * 1024;
inline constexpr const char* kUser = "admin";
inline constexpr const char* kPassword = "pa$$ \"word\"";

// An HTTP or HTTPS server on 127.0.0.1 (cpp-httplib) on a port of its own, serving:
//   /file          the resource, with ranges (206) and 416 for a range past its end
//   /ignore-range  the resource, always whole with 200
//   /status/N      an empty answer with status N
//   /basic         "basic ok" for kUser/kPassword by Basic, else 401
//   /digest        "digest ok" for kUser/kPassword by Digest, else 401
//   /whoami        the client certificate's subject, or "anonymous"
//   /slow          16 pieces of 500 bytes, 100 ms apart
//   /big           kBigResourceSize bytes
//   /echo          a POST's body back
//   /redirect      302 to /file
class TestServer {
 public:
  enum class Identity { None, CASigned, SelfSigned };
  TestServer(const TestCertificates* certificates, Identity identity,
             bool requireClientCertificate = false);
  ~TestServer();

  std::string url(const std::string& path, const std::string& host = "127.0.0.1") const;
  int port() const { return port_; }
  std::vector<SeenRequest> requests() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
  std::string scheme_;
  int port_ = 0;
  std::thread thread_;
};

// A plain TCP server on 127.0.0.1 that reads one request head per connection and answers
// with fixed bytes, then closes, resets or keeps the connection open without a word; or, to
// Echo, reads the body its Content-Length announces and sends it back with 200.
class RawServer {
 public:
  enum class Ending { Close, Reset, Hang, Echo };
  RawServer(std::string reply, Ending ending);
  ~RawServer();
  std::string url() const;
  // The request heads received, in order.
  std::vector<std::string> heads() const;

 private:
  void serve();
  std::string reply_;
  Ending ending_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<int> open_;
  std::vector<std::string> heads_;
  std::thread thread_;
};

}  // namespace vesk::test
