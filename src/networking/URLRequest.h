#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Value.h"

namespace vesk {

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

// Whether two header names are the same, compared without regard to case as HTTP does.
bool sameHeaderField(std::string_view a, std::string_view b);
// The value of the header `name` in `fields`.
std::optional<std::string> headerValue(const HeaderFields& fields, std::string_view name);

// A request body read from a file as it is sent. It can be read again from its start: a
// server that asks for credentials gets the body once more.
class FileInputStream {
 public:
  // The stream over the file at `path`; a file that cannot be opened gives a stream whose
  // reads fail, so the request fails when it is sent, not when it is built.
  static std::shared_ptr<FileInputStream> inputStreamWithFileAtPath(const std::string& path);
  ~FileInputStream();
  FileInputStream(const FileInputStream&) = delete;
  FileInputStream& operator=(const FileInputStream&) = delete;

  const std::string& path() const { return path_; }
  bool isOpen() const { return fd_ >= 0; }
  // Up to `size` bytes into `buffer`: the count read, 0 at the end, -1 on a failure.
  ssize_t read(char* buffer, std::size_t size);
  bool seek(std::uint64_t offset);

 private:
  FileInputStream(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
  std::string path_;
  int fd_;
};

// What goes out: method, URL, headers, body (bytes or a stream, never both) and the time-out,
// which is how long the exchange may stay idle before it fails.
class URLRequest {
 public:
  URLRequest() = default;
  explicit URLRequest(std::string url) : url_(std::move(url)) {}

  const std::string& url() const { return url_; }
  void setURL(std::string url) { url_ = std::move(url); }
  const std::string& httpMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }
  const HeaderFields& allHTTPHeaderFields() const { return headers_; }
  // Sets the header `field`, replacing one of the same name in whatever case.
  void setValueForHTTPHeaderField(std::string value, std::string_view field);
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return headerValue(headers_, field);
  }
  const Data& httpBody() const { return body_; }
  void setHTTPBody(Data body);
  const std::shared_ptr<FileInputStream>& httpBodyStream() const { return bodyStream_; }
  void setHTTPBodyStream(std::shared_ptr<FileInputStream> stream);
  double timeoutInterval() const { return timeout_; }
  void setTimeoutInterval(double seconds) { timeout_ = seconds; }

  // The process-wide switch that lets any server certificate through, whatever the request
  // that set it: the last request prepared decides for every connection then running.
  static bool allowInvalidCert() { return allowInvalidCert_.load(std::memory_order_relaxed); }
  static void setAllowInvalidCert(bool allow) {
    allowInvalidCert_.store(allow, std::memory_order_relaxed);
  }
  static bool allowsAnyHTTPSCertificateForHost(std::string_view /*host*/) {
    return allowInvalidCert();
  }

 private:
  std::string url_;
  std::string method_ = "GET";
  HeaderFields headers_;
  Data body_;
  std::shared_ptr<FileInputStream> bodyStream_;
  double timeout_ = 60.0;

  static inline std::atomic<bool> allowInvalidCert_{false};
};

// The head of a server's answer.
struct HTTPURLResponse {
  std::string url;
  long statusCode = 0;
  // From Content-Length; -1 when the server did not say.
  std::int64_t expectedContentLength = -1;
  HeaderFields headers;
};

}  // namespace vesk
