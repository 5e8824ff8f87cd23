#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "foundation/Error.h"
#include "networking/URLAuthentication.h"
#include "networking/URLRequest.h"

namespace vesk {

class URLConnection;

// What a connection tells whoever started it. Every call comes on the run loop of the thread
// that started the connection, in the order the exchange produced them. The three
// authentication calls may come from inside the TLS handshake: they must answer at once and
// must not run the loop.
class URLConnectionDelegate {
 public:
  virtual ~URLConnectionDelegate() = default;

  virtual void connectionDidReceiveResponse(URLConnection& connection,
                                            const HTTPURLResponse& response) = 0;
  virtual void connectionDidReceiveData(URLConnection& connection, std::string_view data) = 0;
  virtual void connectionDidSendBodyData(URLConnection& connection, std::int64_t bytesWritten,
                                         std::int64_t totalBytesWritten,
                                         std::int64_t totalBytesExpectedToWrite) = 0;
  virtual void connectionDidFailWithError(URLConnection& connection, const Error& error) = 0;
  virtual void connectionDidFinishLoading(URLConnection& connection) = 0;
  virtual bool connectionCanAuthenticateAgainstProtectionSpace(URLConnection& connection,
                                                               const ProtectionSpace& space) = 0;
  virtual void connectionDidReceiveAuthenticationChallenge(URLConnection& connection,
                                                           AuthenticationChallenge& challenge) = 0;
};

// One HTTP(S) exchange, started at once on the calling thread's run loop, which must run for
// it to make progress. It follows redirects, answers challenges through its delegate and ends
// with exactly one of didFinishLoading and didFailWithError, unless cancelled first.
//
// Trust: a server's chain is checked against the bundle at fsPath("/etc/ssl/certs/
// ca-certificates.crt") and the URL's host. The delegate is asked about every chain; when it
// does not vouch for a chain, the chain must check out or the process-wide switch
// (URLRequest::allowsAnyHTTPSCertificateForHost) must be on.
class URLConnection {
 public:
  URLConnection(const URLRequest& request, URLConnectionDelegate* delegate);
  ~URLConnection();
  URLConnection(const URLConnection&) = delete;
  URLConnection& operator=(const URLConnection&) = delete;

  // Stops the exchange; the delegate hears nothing more. Safe from the delegate's calls.
  void cancel();

  class Transfer;

 private:
  std::shared_ptr<Transfer> transfer_;
};

}  // namespace vesk
