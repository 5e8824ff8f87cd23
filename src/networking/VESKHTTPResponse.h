#pragma once

#include <cstdint>

#include "foundation/Value.h"

namespace vesk {

// What one submission of a request gave: the status, the body when it went to memory, and
// how many bytes went each way.
class VESKHTTPResponse {
 public:
  // Body bytes received, counting the offset a download resumed from.
  std::uint64_t bytesDownloaded() const { return bytesDownloaded_; }
  void setBytesDownloaded(std::uint64_t bytes) { bytesDownloaded_ = bytes; }
  // The length of the in-memory request body; 0 for a body streamed from a file.
  std::uint64_t bytesUploaded() const { return bytesUploaded_; }
  void setBytesUploaded(std::uint64_t bytes) { bytesUploaded_ = bytes; }
  std::int64_t responseCode() const { return responseCode_; }
  void setResponseCode(std::int64_t code) { responseCode_ = code; }
  // Empty when the body went to a file.
  const Data& responseData() const { return responseData_; }
  void setResponseData(Data data) { responseData_ = std::move(data); }
  std::uint64_t totalBytes() const { return bytesUploaded_ + bytesDownloaded_; }

 private:
  std::uint64_t bytesDownloaded_ = 0;
  std::uint64_t bytesUploaded_ = 0;
  std::int64_t responseCode_ = 0;
  Data responseData_;
};

}  // namespace vesk
