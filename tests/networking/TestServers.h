#pragma once

#include <httplib.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "helpers/TestSupport.h"

namespace vesk::test {

// Keys and certificates made with the openssl command: a CA; a server certificate it signed
// for localhost only; a self-signed one for localhost and 127.0.0.1; a client identity it
// signed (PEM with a key encrypted by "key-secret", and PKCS#12 with "p12-secret").
class TestCertificates {
 public:
  TestCertificates();
  std::filesystem::path file(const std::string& name) const { return folder_.path() / name; }
  // A client root whose trust bundle holds only our CA.
  std::filesystem::path trustingRoot() const { return folder_.path() / "root"; }

 private:
  TemporaryFolder folder_;
};

// The bytes every resource of the servers is made of: a pattern that repeats every 251 bytes,
// so that a piece put at a wrong offset shows.
inline std::string resourceBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7919 % 251);
  return bytes;
}
inline constexpr std::size_t kResourceSize = 256 * 1024;
inline constexpr std::size_t kBigResourceSize = 100u * 1024 * 1024;
inline constexpr const char* kUser = "admin";
inline constexpr const char* kPassword = "pa$$ \"word\"";

// An HTTP or HTTPS server on 127.0.0.1 (cpp-httplib), port of its own. Routes (TestServers.cpp):
// /file, /ignore-range, /redirect, /status/N, /basic, /digest, /whoami, /slow, /big, POST /echo,
// /user/NAME/dexlo2/dxresource/username.
class TestServer {
 public:
  enum class Identity { None, CASigned, SelfSigned };
  TestServer(const TestCertificates* certificates, Identity identity,
             bool requireClientCertificate = false);
  ~TestServer() { server_->stop(); }
  std::string url(const std::string& path, const std::string& host = "127.0.0.1") const {
    return scheme_ + "://" + host + ":" + std::to_string(port_) + path;
  }
  // The requests seen, each recorded before its answer went out (headers, no body).
  std::vector<httplib::Request> requests() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::string scheme_ = "http";
  int port_ = 0;
  mutable std::mutex mutex_;
  std::vector<httplib::Request> seen_;
  std::jthread thread_;  // last, so that it ends before what the handlers use goes
};

// A plain TCP server on 127.0.0.1 that reads one request head per connection, answers with
// fixed bytes, then closes or resets it; or that hangs: never accepts a connection (the system
// does) and so never says a word.
class RawServer {
 public:
  enum class Ending { Close, Reset, Hang };
  RawServer(std::string reply, Ending ending);
  ~RawServer();
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/raw"; }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace vesk::test
