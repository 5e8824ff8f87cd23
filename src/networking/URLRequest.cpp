#include "networking/URLRequest.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

namespace vesk {

bool sameHeaderField(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string> headerValue(const HeaderFields& fields, std::string_view name) {
  for (const auto& [field, value] : fields) {
    if (sameHeaderField(field, name)) return value;
  }
  return std::nullopt;
}

std::shared_ptr<FileInputStream> FileInputStream::inputStreamWithFileAtPath(
    const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return std::shared_ptr<FileInputStream>(new FileInputStream(path, fd));
}

FileInputStream::~FileInputStream() {
  if (fd_ >= 0) ::close(fd_);
}

ssize_t FileInputStream::read(char* buffer, std::size_t size) {
  if (fd_ < 0) return -1;
  for (;;) {
    const ssize_t n = ::read(fd_, buffer, size);
    if (n >= 0 || errno != EINTR) return n;
  }
}

bool FileInputStream::seek(std::uint64_t offset) {
  return fd_ >= 0 && ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

void URLRequest::setValueForHTTPHeaderField(std::string value, std::string_view field) {
  for (auto& [name, existing] : headers_) {
    if (sameHeaderField(name, field)) {
      existing = std::move(value);
      return;
    }
  }
  headers_.emplace_back(std::string(field), std::move(value));
}

void URLRequest::setHTTPBody(Data body) {
  body_ = std::move(body);
  bodyStream_.reset();
}

void URLRequest::setHTTPBodyStream(std::shared_ptr<FileInputStream> stream) {
  bodyStream_ = std::move(stream);
  body_.clear();
}

}  // namespace vesk
