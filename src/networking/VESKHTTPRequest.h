#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Error.h"
#include "foundation/Value.h"
#include "networking/NetworkingException.h"
#include "networking/URLAuthentication.h"
#include "networking/URLConnection.h"
#include "networking/URLRequest.h"
#include "networking/VESKHTTPResponse.h"

namespace vesk {

class VESKHTTPRequest;

// Who hears about a request: progress, the end, and a client identity when a server asks for
// one. Each operation is optional; the request calls only those respondsToSelector admits.
class VESKHTTPRequestDelegate {
 public:
  virtual ~VESKHTTPRequestDelegate() = default;
  // "notifyProgress:forRequest:", "notifyCompletedForRequest:" or
  // "credentialNeededForServerRequest:fromServer:".
  virtual bool respondsToSelector(std::string_view selector) const = 0;
  // `percentage` holds a double from 0 to 100.
  virtual void notifyProgress(const Value& /*percentage*/, VESKHTTPRequest& /*request*/) {}
  virtual void notifyCompletedForRequest(VESKHTTPRequest& /*request*/) {}
  virtual std::optional<URLCredential> credentialNeededForServerRequest(
      VESKHTTPRequest& /*request*/, const std::string& /*fromServer*/) {
    return std::nullopt;
  }
};

// A keychain access object: a label and the applications trusted to read the item.
struct KeychainAccess {
  std::string label;
  std::vector<std::string> trustedApplications;
};

// The access object labelled "vesk" that trusts exactly the application at `path`.
KeychainAccess veskRef(const std::string& path);

// One HTTP(S) exchange with the management server or another web server, into memory or into
// a file, resumable, with a file body, Basic/Digest credentials, a client identity from the
// delegate and a switch for servers whose certificate does not check out. The synchronous
// forms run the calling thread's run loop until the exchange ends and raise on failure; the
// asynchronous form reports through the delegate on that loop. A request may be submitted
// again; it must stay on the thread that submits it.
class VESKHTTPRequest : public URLConnectionDelegate {
 public:
  VESKHTTPRequest();
  explicit VESKHTTPRequest(std::string url);
  // A POST of `body` as XML.
  VESKHTTPRequest(std::string url, Data body);
  ~VESKHTTPRequest() override;
  VESKHTTPRequest(const VESKHTTPRequest&) = delete;
  VESKHTTPRequest& operator=(const VESKHTTPRequest&) = delete;

  static std::unique_ptr<VESKHTTPRequest> requestWithUrl(std::string url);
  static std::unique_ptr<VESKHTTPRequest> xmlPostRequestWithUrl(std::string url, Data body);

  const std::string& url() const { return urlRequest_.url(); }
  void setUrl(std::string url) { urlRequest_.setURL(std::move(url)); }
  const Data& postBody() const { return urlRequest_.httpBody(); }
  // POSTs `body` as "application/xml; charset=utf-8".
  void setPostBody(Data body);
  // POSTs the file at `path`, streamed as it is sent, as "multipart/form-data; charset=utf-8".
  void setPostFilePath(const std::string& path);
  // Sets a header, replacing one of the same name.
  void addHeaderValue(std::string value, std::string_view forKey);
  Dictionary headerValues() const;
  // Starts again from a request that keeps only the URL: method, headers, body and time-out
  // are dropped.
  void reset();

  // Raise VESKNetworkingException, or VESKNetworkingExceptionRangeNotSatisfiable for a 416,
  // named "Networking Error", and a plain "URL Download Error" when the file cannot be opened.
  // submitRequest retries a file download once from its start after a 416.
  std::shared_ptr<VESKHTTPResponse> submitRequest();
  std::shared_ptr<VESKHTTPResponse> submitRequestWithout416Check();
  // Starts the exchange; the caller's run loop must run, notifyCompletedForRequest tells the end.
  void asyncSubmitRequest();

  // The steps of a submission.
  void prepareForRequest();
  void initializeConnection();
  void completed();
  void initializeOutputFile();
  bool writeToOutputFile(std::string_view data);
  std::optional<URLCredential> credentialForCertFile();

  const std::string& username() const { return username_; }
  void setUsername(std::string username) { username_ = std::move(username); }
  const std::optional<std::string>& password() const { return password_; }
  void setPassword(std::optional<std::string> password) { password_ = std::move(password); }
  const std::string& ksvAddressForCredential() const { return ksvAddressForCredential_; }
  void setKsvAddressForCredential(std::string address) {
    ksvAddressForCredential_ = std::move(address);
  }
  bool ksvAllowInvalidCert() const { return ksvAllowInvalidCert_; }
  void setKsvAllowInvalidCert(bool allow) { ksvAllowInvalidCert_ = allow; }
  const std::string& p12FilePath() const { return p12FilePath_; }
  void setP12FilePath(std::string path) { p12FilePath_ = std::move(path); }
  const std::string& p12Password() const { return p12Password_; }
  void setP12Password(std::string password) { p12Password_ = std::move(password); }
  const std::string& applicationLocation() const { return applicationLocation_; }
  void setApplicationLocation(std::string path) { applicationLocation_ = std::move(path); }
  bool allowInvalidCert() const { return allowInvalidCert_; }
  void setAllowInvalidCert(bool allow) { allowInvalidCert_ = allow; }
  const std::string& uploadFilePath() const { return uploadFilePath_; }
  void setUploadFilePath(std::string path) { uploadFilePath_ = std::move(path); }
  const std::string& downloadFilePath() const { return downloadFilePath_; }
  void setDownloadFilePath(std::string path) { downloadFilePath_ = std::move(path); }
  std::int64_t resumeFromLocation() const { return resumeFromLocation_; }
  void setResumeFromLocation(std::int64_t offset) { resumeFromLocation_ = offset; }
  double timeout() const { return timeout_; }
  void setTimeout(double seconds) { timeout_ = seconds; }
  std::shared_ptr<VESKHTTPRequestDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<VESKHTTPRequestDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  bool isCompleted() const { return isCompleted_; }
  bool errored() const { return errored_; }
  const std::optional<Error>& error() const { return error_; }
  const std::shared_ptr<VESKHTTPResponse>& httpResponse() const { return httpResponse_; }
  std::uint64_t currentDownloadedBytes() const { return currentDownloadedBytes_; }
  std::uint64_t expectedContentLength() const { return expectedContentLength_; }
  std::uint64_t currentUploadBytes() const { return currentUploadBytes_; }
  const std::shared_ptr<FileInputStream>& fileStream() const { return fileStream_; }
  const URLRequest& urlRequest() const { return urlRequest_; }

  // What the connection reports; public so that a test can play a server's part.
  void connectionDidReceiveResponse(URLConnection& connection,
                                    const HTTPURLResponse& response) override;
  void connectionDidReceiveData(URLConnection& connection, std::string_view data) override;
  void connectionDidSendBodyData(URLConnection& connection, std::int64_t bytesWritten,
                                 std::int64_t totalBytesWritten,
                                 std::int64_t totalBytesExpectedToWrite) override;
  void connectionDidFailWithError(URLConnection& connection, const Error& error) override;
  void connectionDidFinishLoading(URLConnection& connection) override;
  bool connectionCanAuthenticateAgainstProtectionSpace(URLConnection& connection,
                                                       const ProtectionSpace& space) override;
  void connectionDidReceiveAuthenticationChallenge(URLConnection& connection,
                                                   AuthenticationChallenge& challenge) override;

 private:
  bool delegateAnswers(std::string_view selector) const;
  void fillResponse();
  void closeOutputFile();

  URLRequest urlRequest_;
  std::unique_ptr<URLConnection> connection_;
  int fileHandle_ = -1;
  std::optional<std::string> keychainItemName_;
  std::uint64_t lastUploadBytes_ = 0;
  std::int32_t uploadWrapQty_ = 0;
  std::optional<Data> responseData_;

  std::string username_;
  std::optional<std::string> password_;
  std::string ksvAddressForCredential_;
  bool ksvAllowInvalidCert_ = false;
  std::string p12FilePath_;
  std::string p12Password_;
  std::string applicationLocation_;
  bool allowInvalidCert_ = false;
  std::string uploadFilePath_;
  std::string downloadFilePath_;
  std::int64_t resumeFromLocation_ = 0;
  double timeout_ = 60.0;
  std::weak_ptr<VESKHTTPRequestDelegate> delegate_;
  bool isCompleted_ = false;
  bool errored_ = false;
  std::optional<Error> error_;
  std::shared_ptr<VESKHTTPResponse> httpResponse_;
  std::uint64_t currentDownloadedBytes_ = 0;
  std::uint64_t expectedContentLength_ = 0;
  std::uint64_t currentUploadBytes_ = 0;
  std::shared_ptr<FileInputStream> fileStream_;
};

}  // namespace vesk
