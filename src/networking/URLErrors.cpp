#include "networking/URLErrors.h"

#include <fmt/format.h>

#include <optional>

namespace vesk {
namespace {

std::optional<std::string> descriptionFor(long code, const std::string& host) {
  switch (code) {
    case kURLErrorCancelled:
      return "cancelled";
    case kURLErrorBadURL:
      return "bad URL";
    case kURLErrorTimedOut:
      return "The request timed out.";
    case kURLErrorUnsupportedURL:
      return "unsupported URL";
    case kURLErrorCannotFindHost:
      return "A server with the specified hostname could not be found.";
    case kURLErrorCannotConnectToHost:
      return "Could not connect to the server.";
    case kURLErrorNetworkConnectionLost:
      return "The network connection was lost.";
    case kURLErrorHTTPTooManyRedirects:
      return "too many HTTP redirects";
    case kURLErrorBadServerResponse:
      return "The server returned a response that could not be read.";
    case kURLErrorRequestBodyStreamExhausted:
      return "request body stream exhausted";
    case kURLErrorSecureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case kURLErrorServerCertificateUntrusted:
      return fmt::format(
          "The certificate for this server is invalid. You might be connecting to a server that "
          "is pretending to be \u201c{}\u201d which could put your confidential information at "
          "risk.",
          host);
    case kURLErrorClientCertificateRequired:
      return fmt::format("The server \u201c{}\u201d requires a client certificate.", host);
    case kURLErrorCannotWriteToFile:
      return "The file could not be written.";
    default:
      return std::nullopt;  // the generic "couldn't be completed" text
  }
}

}  // namespace

Error urlError(long code, const std::string& url, const std::string& host,
               const std::string& detail) {
  Dictionary userInfo;
  if (auto text = descriptionFor(code, host)) userInfo.set(kLocalizedDescriptionKey, *text);
  userInfo.set(kURLErrorFailingURLStringKey, url);
  if (!detail.empty()) userInfo.set(kDebugDescriptionKey, detail);
  return Error(kURLErrorDomain, code, std::move(userInfo));
}

}  // namespace vesk
