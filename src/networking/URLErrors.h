#pragma once

#include <string>

#include "foundation/Error.h"

namespace vesk {

// The domain and codes of the failures an exchange can end in, numbered as the platform's
// URL loading system numbers them, so that callers and logs read the same everywhere.
inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kURLErrorFailingURLStringKey = "NSErrorFailingURLStringKey";
// What the transport itself said, for whoever reads the log.
inline constexpr const char* kDebugDescriptionKey = "NSDebugDescription";

enum URLErrorCode : long {
  kURLErrorUnknown = -1,
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorBadServerResponse = -1011,
  kURLErrorUserCancelledAuthentication = -1012,
  kURLErrorRequestBodyStreamExhausted = -1021,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
  kURLErrorClientCertificateRequired = -1206,
  kURLErrorCannotWriteToFile = -3003,
};

// An error of the URL domain with its usual description; `host` fills the descriptions that
// name the server, `detail` (when not empty) is kept under kDebugDescriptionKey.
Error urlError(long code, const std::string& url, const std::string& host,
               const std::string& detail = {});

}  // namespace vesk
