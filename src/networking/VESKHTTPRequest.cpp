#include "networking/VESKHTTPRequest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "foundation/FileManager.h"
#include "foundation/RunLoop.h"
#include "networking/URLErrors.h"

namespace vesk {
namespace {

constexpr std::string_view kNotifyProgress = "notifyProgress:forRequest:";
constexpr std::string_view kNotifyCompleted = "notifyCompletedForRequest:";
constexpr std::string_view kCredentialNeeded = "credentialNeededForServerRequest:fromServer:";

std::string base64(std::string_view bytes) {
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
  std::string text(encoded);
  g_free(encoded);
  return text;
}

}  // namespace

KeychainAccess veskRef(const std::string& path) { return KeychainAccess{"vesk", {path}}; }

VESKHTTPRequest::VESKHTTPRequest() = default;

VESKHTTPRequest::VESKHTTPRequest(std::string url) { setUrl(std::move(url)); }

VESKHTTPRequest::VESKHTTPRequest(std::string url, Data body) : VESKHTTPRequest(std::move(url)) {
  setPostBody(std::move(body));
}

VESKHTTPRequest::~VESKHTTPRequest() {
  connection_.reset();
  closeOutputFile();
}

std::unique_ptr<VESKHTTPRequest> VESKHTTPRequest::requestWithUrl(std::string url) {
  return std::make_unique<VESKHTTPRequest>(std::move(url));
}

std::unique_ptr<VESKHTTPRequest> VESKHTTPRequest::xmlPostRequestWithUrl(std::string url,
                                                                        Data body) {
  return std::make_unique<VESKHTTPRequest>(std::move(url), std::move(body));
}

void VESKHTTPRequest::setPostBody(Data body) {
  urlRequest_.setHTTPMethod("POST");
  urlRequest_.setHTTPBody(std::move(body));
  urlRequest_.setValueForHTTPHeaderField("application/xml; charset=utf-8", "Content-Type");
}

void VESKHTTPRequest::setPostFilePath(const std::string& path) {
  fileStream_ = FileInputStream::inputStreamWithFileAtPath(path);
  const std::uint64_t size = fileSizeAtPath(path).value_or(0);
  expectedContentLength_ = size;
  urlRequest_.setHTTPMethod("POST");
  urlRequest_.setHTTPBodyStream(fileStream_);
  urlRequest_.setValueForHTTPHeaderField("multipart/form-data; charset=utf-8", "Content-Type");
  urlRequest_.setValueForHTTPHeaderField(fmt::format("{}", size), "Content-Length");
}

void VESKHTTPRequest::addHeaderValue(std::string value, std::string_view forKey) {
  urlRequest_.setValueForHTTPHeaderField(std::move(value), forKey);
}

Dictionary VESKHTTPRequest::headerValues() const {
  Dictionary headers;
  for (const auto& [name, value] : urlRequest_.allHTTPHeaderFields()) headers.set(name, value);
  return headers;
}

void VESKHTTPRequest::reset() { urlRequest_ = URLRequest(urlRequest_.url()); }

std::shared_ptr<VESKHTTPResponse> VESKHTTPRequest::submitRequest() {
  try {
    return submitRequestWithout416Check();
  } catch (const VESKNetworkingExceptionRangeNotSatisfiable&) {
    if (downloadFilePath_.empty()) throw;
    // What we hold is not a prefix of what the server has: start the download over. The
    // retry is the plain request for the URL; credentials come back in prepareForRequest.
    resumeFromLocation_ = 0;
    removeItemAtPath(downloadFilePath_);
    reset();
    return submitRequestWithout416Check();
  }
}

std::shared_ptr<VESKHTTPResponse> VESKHTTPRequest::submitRequestWithout416Check() {
  prepareForRequest();
  RunLoop& loop = RunLoop::current();
  while (!isCompleted_) loop.runUntilCondition([this] { return isCompleted_; }, 0.03);
  if (error_) {
    const std::string reason = error_->localizedDescription();
    if (error_->code() == 416)
      throw VESKNetworkingExceptionRangeNotSatisfiable("Networking Error", reason);
    throw VESKNetworkingException("Networking Error", reason);
  }
  return httpResponse_;
}

void VESKHTTPRequest::asyncSubmitRequest() { prepareForRequest(); }

void VESKHTTPRequest::prepareForRequest() {
  if (!username_.empty() && password_) {
    // Sent with the first request, before any challenge.
    const std::string pair = fmt::format("{}:{}", username_, *password_);
    urlRequest_.setValueForHTTPHeaderField(fmt::format("Basic {}", base64(pair)), "Authorization");
  }
  if (resumeFromLocation_ != 0)
    urlRequest_.setValueForHTTPHeaderField(fmt::format("bytes={}-", resumeFromLocation_), "Range");
  if (timeout_ > 0) urlRequest_.setTimeoutInterval(timeout_);
  URLRequest::setAllowInvalidCert(allowInvalidCert_);

  error_.reset();
  errored_ = false;
  isCompleted_ = false;
  httpResponse_ = std::make_shared<VESKHTTPResponse>();

  if (downloadFilePath_.empty()) {
    if (!responseData_) responseData_.emplace();
  } else {
    initializeOutputFile();
  }
  if (responseData_) responseData_->clear();

  initializeConnection();
  currentUploadBytes_ = 0;
  lastUploadBytes_ = 0;
  uploadWrapQty_ = 0;
}

void VESKHTTPRequest::initializeConnection() {
  connection_.reset();
  connection_ = std::make_unique<URLConnection>(urlRequest_, this);
}

void VESKHTTPRequest::completed() {
  closeOutputFile();
  isCompleted_ = true;
  if (delegateAnswers(kNotifyCompleted)) delegate_.lock()->notifyCompletedForRequest(*this);
}

void VESKHTTPRequest::initializeOutputFile() {
  closeOutputFile();
  if (resumeFromLocation_ == 0) removeItemAtPath(downloadFilePath_);
  if (!fileExistsAtPath(downloadFilePath_)) {
    const std::string parent = std::filesystem::path(downloadFilePath_).parent_path().string();
    if (!parent.empty() && !fileExistsAtPath(parent))
      createDirectoryAtPath(parent, FileAttributes{::geteuid(), ::getegid(), 0755});
    // Never through a link: the agent runs as root and the folder may be a user's.
    const int fd = ::open(downloadFilePath_.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
  }
  fileHandle_ = ::open(downloadFilePath_.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fileHandle_ < 0) {
    throw Exception("URL Download Error",
                    fmt::format("Unable to initialize output file {}", downloadFilePath_));
  }
}

bool VESKHTTPRequest::writeToOutputFile(std::string_view data) {
  return ::lseek(fileHandle_, 0, SEEK_END) >= 0 && writeAll(fileHandle_, data);
}

void VESKHTTPRequest::closeOutputFile() {
  if (fileHandle_ >= 0) ::close(fileHandle_);
  fileHandle_ = -1;
}

std::optional<URLCredential> VESKHTTPRequest::credentialForCertFile() {
  if (ksvAddressForCredential_.empty() || !delegateAnswers(kCredentialNeeded)) return std::nullopt;
  return delegate_.lock()->credentialNeededForServerRequest(*this, ksvAddressForCredential_);
}

bool VESKHTTPRequest::delegateAnswers(std::string_view selector) const {
  const std::shared_ptr<VESKHTTPRequestDelegate> delegate = delegate_.lock();
  return delegate && delegate->respondsToSelector(selector);
}

void VESKHTTPRequest::connectionDidReceiveResponse(URLConnection& connection,
                                                   const HTTPURLResponse& response) {
  httpResponse_->setResponseCode(response.statusCode);
  if (response.statusCode != 200 && response.statusCode != 206) {
    connectionDidFailWithError(connection, Error("", response.statusCode));
    return;
  }
  if (response.statusCode == 200 && resumeFromLocation_ >= 1) {
    // The server ignored the range and sends the whole body: start over.
    resumeFromLocation_ = 0;
    if (downloadFilePath_.empty()) {
      responseData_->clear();
    } else {
      try {
        initializeOutputFile();
      } catch (const Exception& e) {
        connectionDidFailWithError(connection,
                                   Error(kURLErrorDomain, kURLErrorCannotWriteToFile,
                                         Dictionary{{kLocalizedDescriptionKey, e.reason()}}));
        return;
      }
    }
  }
  // An unknown length (-1) wraps around, as it does in the client.
  expectedContentLength_ = static_cast<std::uint64_t>(response.expectedContentLength) +
                           static_cast<std::uint64_t>(resumeFromLocation_);
  currentDownloadedBytes_ = static_cast<std::uint64_t>(resumeFromLocation_);
}

void VESKHTTPRequest::connectionDidReceiveData(URLConnection& connection, std::string_view data) {
  if (fileHandle_ >= 0) {
    if (!writeToOutputFile(data)) {
      const int why = errno;
      const std::string reason = fmt::format("{} ({})", downloadFilePath_, std::strerror(why));
      connectionDidFailWithError(
          connection, urlError(kURLErrorCannotWriteToFile, urlRequest_.url(), "", reason));
      return;
    }
  } else {
    responseData_->insert(responseData_->end(), data.begin(), data.end());
  }
  currentDownloadedBytes_ += data.size();
  if (delegateAnswers(kNotifyProgress)) {
    const double percentage = static_cast<double>(currentDownloadedBytes_) /
                              static_cast<double>(expectedContentLength_) * 100;
    delegate_.lock()->notifyProgress(Value(percentage), *this);
  }
}

void VESKHTTPRequest::connectionDidSendBodyData(URLConnection&, std::int64_t,
                                                std::int64_t totalBytesWritten,
                                                std::int64_t totalBytesExpectedToWrite) {
  const std::uint64_t denominator =
      std::max(expectedContentLength_, static_cast<std::uint64_t>(totalBytesExpectedToWrite));
  const auto written = static_cast<std::uint64_t>(totalBytesWritten);
  if (lastUploadBytes_ > written) ++uploadWrapQty_;  // the body went out again from its start
  lastUploadBytes_ = written;
  // Less the number of restarts, not the bytes sent before them: kept as the client has it.
  currentUploadBytes_ = written - static_cast<std::uint64_t>(uploadWrapQty_);
  if (delegateAnswers(kNotifyProgress)) {
    const double percentage =
        static_cast<double>(currentUploadBytes_) / static_cast<double>(denominator) * 100;
    delegate_.lock()->notifyProgress(Value(percentage), *this);
  }
}

void VESKHTTPRequest::fillResponse() {
  httpResponse_->setBytesDownloaded(currentDownloadedBytes_);
  httpResponse_->setBytesUploaded(urlRequest_.httpBody().size());
  // The response takes the body; the buffer is emptied for the next submission anyway.
  httpResponse_->setResponseData(responseData_ ? std::exchange(*responseData_, {}) : Data());
}

void VESKHTTPRequest::connectionDidFinishLoading(URLConnection&) {
  fillResponse();
  completed();
}

void VESKHTTPRequest::connectionDidFailWithError(URLConnection& connection, const Error& error) {
  // Nothing more of this exchange is wanted, least of all in a file kept for a resume.
  connection.cancel();
  if (!downloadFilePath_.empty()) {
    // A partial file with data stays for a later resume; an empty one goes.
    if (fileSizeAtPath(downloadFilePath_) == std::optional<std::uint64_t>(0))
      removeItemAtPath(downloadFilePath_);
  }
  fillResponse();
  Dictionary userInfo = error.userInfo();
  userInfo.set(kLocalizedDescriptionKey,
               fmt::format("Connection failure: \"{}\"", error.description()));
  error_ = Error(error.domain(), error.code(), std::move(userInfo));
  errored_ = true;
  if (error.code() == kURLErrorServerCertificateUntrusted) httpResponse_->setResponseCode(403);
  completed();
}

bool VESKHTTPRequest::connectionCanAuthenticateAgainstProtectionSpace(
    URLConnection&, const ProtectionSpace& space) {
  const std::string& method = space.authenticationMethod;
  if (method == kAuthenticationMethodServerTrust) return true;
  if (method == kAuthenticationMethodHTTPBasic || method == kAuthenticationMethodHTTPDigest)
    return !username_.empty() && password_.has_value();
  if (method == kAuthenticationMethodClientCertificate) return !ksvAddressForCredential_.empty();
  return false;
}

void VESKHTTPRequest::connectionDidReceiveAuthenticationChallenge(
    URLConnection&, AuthenticationChallenge& challenge) {
  // A credential that already failed: cancel. The steps below still run and answer the same
  // challenge; only the first answer counts, so this one stands.
  if (challenge.previousFailureCount() > 0 && challenge.proposedCredential()) challenge.cancel();

  const ProtectionSpace& space = challenge.protectionSpace();
  const ServerTrust trust = space.serverTrust.value_or(ServerTrust{});
  const SecTrustResultType result = trust.evaluate();
  const URLCredential trustCredential = URLCredential::credentialForTrust(trust);
  const std::string& method = space.authenticationMethod;

  if (method == kAuthenticationMethodServerTrust) {
    if (!allowInvalidCert_ && result != SecTrustResultType::Proceed &&
        result != SecTrustResultType::Unspecified) {
      challenge.continueWithoutCredential();
    } else {
      challenge.useCredential(trustCredential);
    }
  } else if (method == kAuthenticationMethodClientCertificate) {
    std::optional<URLCredential> identity = credentialForCertFile();
    challenge.useCredential(identity ? *identity : trustCredential);
  } else if (method == kAuthenticationMethodDefault || method == kAuthenticationMethodHTTPBasic ||
             method == kAuthenticationMethodHTTPDigest) {
    challenge.useCredential(URLCredential::credentialWithUser(
        username_, password_.value_or(""), URLCredential::Persistence::ForSession));
  } else {
    challenge.continueWithoutCredential();
  }
}

}  // namespace vesk
