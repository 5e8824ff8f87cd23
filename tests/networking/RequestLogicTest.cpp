// The request's own decisions, driven directly: what it sends, how it counts an upload that
// restarts, and how it answers each kind of challenge.

#include <gtest/gtest.h>

#include "networking/VESKHTTPRequest.h"

namespace vesk {
namespace {

class Progress : public VESKHTTPRequestDelegate {
 public:
  bool respondsToSelector(std::string_view selector) const override {
    return selector == "notifyProgress:forRequest:" ||
           (selector == "credentialNeededForServerRequest:fromServer:" && identity);
  }
  void notifyProgress(const Value& percentage, VESKHTTPRequest&) override {
    reports.push_back(percentage.doubleValue());
  }
  std::optional<URLCredential> credentialNeededForServerRequest(VESKHTTPRequest&,
                                                                const std::string&) override {
    return identity;
  }
  std::vector<double> reports;
  std::optional<URLCredential> identity;
};

// A connection to a port nobody listens on; nothing it does reaches the request.
URLConnection& idleConnection() {
  static URLConnection connection(URLRequest("http://127.0.0.1:9/"), nullptr);
  return connection;
}

AuthenticationChallenge challengeFor(
    const std::string& method, int failures = 0,
    std::optional<URLCredential> proposed = std::nullopt,
    SecTrustResultType trust = SecTrustResultType::RecoverableTrustFailure) {
  ProtectionSpace space{"server.example.com", 443, "https", "vesk", method, std::nullopt};
  if (method == kAuthenticationMethodServerTrust) space.serverTrust = ServerTrust{trust, ""};
  return AuthenticationChallenge(space, failures, std::move(proposed));
}

TEST(RequestLogic, PreparingAddsCredentialsAndRangeAndResetKeepsOnlyTheUrl) {
  VESKHTTPRequest request("http://127.0.0.1:9/x", Data{'<', 'a', '/', '>'});
  request.addHeaderValue("one", "X-Custom");
  request.addHeaderValue("two", "x-custom");  // the same header, in other case
  request.setUsername("admin");
  request.setResumeFromLocation(42);
  request.setTimeout(5);
  request.prepareForRequest();
  Dictionary headers = request.headerValues();
  EXPECT_EQ(headers["X-Custom"].stringValue(), "two");
  EXPECT_TRUE(headers["Authorization"].isNil());  // a user name without a password
  EXPECT_EQ(headers["Range"].stringValue(), "bytes=42-");
  EXPECT_EQ(headers["Content-Type"].stringValue(), "application/xml; charset=utf-8");
  EXPECT_EQ(request.urlRequest().timeoutInterval(), 5);

  request.setPassword("pa$$ \"word\"");
  request.prepareForRequest();
  // base64("admin:pa$$ \"word\"")
  EXPECT_EQ(request.headerValues()["Authorization"].stringValue(),
            "Basic YWRtaW46cGEkJCAid29yZCI=");
  VESKHTTPRequest anonymous("http://127.0.0.1:9/x");
  anonymous.setPassword("only a password");
  anonymous.prepareForRequest();
  EXPECT_TRUE(anonymous.headerValues()["Authorization"].isNil());

  request.reset();
  EXPECT_EQ(request.url(), "http://127.0.0.1:9/x");
  EXPECT_TRUE(request.headerValues().empty());
  EXPECT_TRUE(request.postBody().empty());
  EXPECT_EQ(request.urlRequest().httpMethod(), "GET");
  EXPECT_EQ(request.urlRequest().timeoutInterval(), 60);

  const KeychainAccess access = veskRef("/Applications/Dexlo.app");
  EXPECT_EQ(access.label, "vesk");
  EXPECT_EQ(access.trustedApplications, std::vector<std::string>{"/Applications/Dexlo.app"});
}

TEST(RequestLogic, UploadProgressSubtractsTheRestartCountNotTheBytesResent) {
  VESKHTTPRequest request("http://127.0.0.1:9/upload");
  auto progress = std::make_shared<Progress>();
  request.setDelegate(progress);
  URLConnection& connection = idleConnection();
  request.connectionDidSendBodyData(connection, 400, 400, 1000);
  request.connectionDidSendBodyData(connection, 600, 1000, 1000);
  EXPECT_EQ(request.currentUploadBytes(), 1000u);
  // The body goes out again from its start, twice.
  request.connectionDidSendBodyData(connection, 300, 300, 1000);
  EXPECT_EQ(request.currentUploadBytes(), 299u);
  request.connectionDidSendBodyData(connection, 100, 100, 1000);
  request.connectionDidSendBodyData(connection, 900, 1000, 1000);
  EXPECT_EQ(request.currentUploadBytes(), 998u);
  EXPECT_EQ(progress->reports, (std::vector<double>{40, 100, 29.9, 9.8, 99.8}));
}

TEST(RequestLogic, ChallengesAreAnsweredByMethodCredentialsAndTrust) {
  VESKHTTPRequest request("https://server.example.com/");
  URLConnection& connection = idleConnection();
  auto can = [&](const char* method) {
    return request.connectionCanAuthenticateAgainstProtectionSpace(
        connection, challengeFor(method).protectionSpace());
  };
  using Answer = AuthenticationChallenge::Answer;
  auto answer = [&](AuthenticationChallenge challenge) {
    request.connectionDidReceiveAuthenticationChallenge(connection, challenge);
    return std::make_pair(challenge.answer(), challenge.credential());
  };

  EXPECT_TRUE(can(kAuthenticationMethodServerTrust));
  EXPECT_FALSE(can(kAuthenticationMethodHTTPBasic));
  EXPECT_FALSE(can(kAuthenticationMethodClientCertificate));
  EXPECT_FALSE(can(kAuthenticationMethodNTLM));
  request.setUsername("admin");
  EXPECT_FALSE(can(kAuthenticationMethodHTTPDigest));
  request.setPassword("");  // empty, but there
  EXPECT_TRUE(can(kAuthenticationMethodHTTPBasic));
  EXPECT_TRUE(can(kAuthenticationMethodHTTPDigest));
  request.setKsvAddressForCredential("https://jss.example.com:8443");
  EXPECT_TRUE(can(kAuthenticationMethodClientCertificate));

  // Server trust: a chain that failed goes on without a credential unless allowed.
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodServerTrust)).first,
            Answer::ContinueWithoutCredential);
  for (auto good : {SecTrustResultType::Proceed, SecTrustResultType::Unspecified}) {
    const auto [given, credential] =
        answer(challengeFor(kAuthenticationMethodServerTrust, 0, std::nullopt, good));
    EXPECT_EQ(given, Answer::UseCredential);
    EXPECT_EQ(credential->kind(), URLCredential::Kind::ServerTrust);
  }
  request.setAllowInvalidCert(true);
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodServerTrust)).first, Answer::UseCredential);

  // Basic: the user's credential for the session, until it has failed once.
  const auto [basic, credential] = answer(challengeFor(kAuthenticationMethodHTTPBasic));
  EXPECT_EQ(basic, Answer::UseCredential);
  EXPECT_EQ(*credential,
            URLCredential::credentialWithUser("admin", "", URLCredential::Persistence::ForSession));
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodHTTPDigest, 1, credential)).first,
            Answer::Cancel);
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodHTTPDigest, 1)).first, Answer::UseCredential);
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodNegotiate)).first,
            Answer::ContinueWithoutCredential);

  // Client certificate: the delegate's identity, or the trust credential without one.
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodClientCertificate)).second->kind(),
            URLCredential::Kind::ServerTrust);
  auto delegate = std::make_shared<Progress>();
  delegate->identity = URLCredential::credentialWithPKCS12File("/x.p12", "secret");
  request.setDelegate(delegate);
  EXPECT_EQ(answer(challengeFor(kAuthenticationMethodClientCertificate)).second,
            delegate->identity);
}

}  // namespace
}  // namespace vesk
