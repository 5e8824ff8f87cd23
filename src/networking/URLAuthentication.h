#pragma once

#include <optional>
#include <string>

namespace vesk {

// How a server asks to be answered, as the protection space names it.
inline constexpr const char* kAuthenticationMethodDefault = "NSURLAuthenticationMethodDefault";
inline constexpr const char* kAuthenticationMethodHTTPBasic = "NSURLAuthenticationMethodHTTPBasic";
inline constexpr const char* kAuthenticationMethodHTTPDigest =
    "NSURLAuthenticationMethodHTTPDigest";
inline constexpr const char* kAuthenticationMethodNTLM = "NSURLAuthenticationMethodNTLM";
inline constexpr const char* kAuthenticationMethodNegotiate = "NSURLAuthenticationMethodNegotiate";
inline constexpr const char* kAuthenticationMethodClientCertificate =
    "NSURLAuthenticationMethodClientCertificate";
inline constexpr const char* kAuthenticationMethodServerTrust =
    "NSURLAuthenticationMethodServerTrust";

// The outcome of evaluating a server's certificate chain, with the platform's numbering.
enum class SecTrustResultType {
  Invalid = 0,
  Proceed = 1,  // trusted because the user said so
  Deny = 3,
  Unspecified = 4,  // trusted through the system's anchors
  RecoverableTrustFailure = 5,
  FatalTrustFailure = 6,
  OtherError = 7,
};

// A server certificate chain and what its evaluation gave. The chain itself stays with the
// TLS library; what a decision needs is the result and why it failed.
struct ServerTrust {
  SecTrustResultType result = SecTrustResultType::Invalid;
  std::string failureReason;  // the TLS library's words when the chain was not trusted
  SecTrustResultType evaluate() const { return result; }
};

// What answers a challenge: a user name and password, a client identity (a certificate and
// its key, as PEM files or one PKCS#12 file), or the acceptance of a server's chain.
class URLCredential {
 public:
  enum class Kind { Password, ClientIdentity, ServerTrust };
  enum class Persistence { None, ForSession, Permanent };

  static URLCredential credentialWithUser(std::string user, std::string password,
                                          Persistence persistence);
  // A certificate and its private key in PEM files; `keyPassword` opens an encrypted key.
  static URLCredential credentialWithCertificateFiles(std::string certificatePath,
                                                      std::string keyPath,
                                                      std::string keyPassword = {});
  static URLCredential credentialWithPKCS12File(std::string path, std::string password);
  static URLCredential credentialForTrust(const ServerTrust& trust);

  Kind kind() const { return kind_; }
  const std::string& user() const { return user_; }
  const std::string& password() const { return password_; }
  Persistence persistence() const { return persistence_; }
  const std::string& certificatePath() const { return certificatePath_; }
  const std::string& keyPath() const { return keyPath_; }
  const std::string& pkcs12Path() const { return pkcs12Path_; }
  bool isPKCS12() const { return !pkcs12Path_.empty(); }

  friend bool operator==(const URLCredential&, const URLCredential&) = default;

 private:
  explicit URLCredential(Kind kind) : kind_(kind) {}
  Kind kind_;
  std::string user_;
  std::string password_;  // the password, the key's password or the PKCS#12 file's
  Persistence persistence_ = Persistence::None;
  std::string certificatePath_;
  std::string keyPath_;
  std::string pkcs12Path_;
};

// Where a challenge comes from: the server, and the method it asks to be answered by.
struct ProtectionSpace {
  std::string host;
  int port = 0;
  std::string protocol;  // "http" or "https"
  std::string realm;
  std::string authenticationMethod;
  std::optional<ServerTrust> serverTrust;  // for the server-trust method only
};

// A server's question, answered once: the first of the three answers counts, later ones are
// ignored, as a challenge's sender does.
class AuthenticationChallenge {
 public:
  enum class Answer { None, UseCredential, ContinueWithoutCredential, Cancel };

  AuthenticationChallenge(ProtectionSpace space, int previousFailureCount,
                          std::optional<URLCredential> proposedCredential)
      : space_(std::move(space)),
        previousFailureCount_(previousFailureCount),
        proposedCredential_(std::move(proposedCredential)) {}

  const ProtectionSpace& protectionSpace() const { return space_; }
  int previousFailureCount() const { return previousFailureCount_; }
  const std::optional<URLCredential>& proposedCredential() const { return proposedCredential_; }

  void useCredential(URLCredential credential);
  void continueWithoutCredential();
  void cancel();

  Answer answer() const { return answer_; }
  const std::optional<URLCredential>& credential() const { return credential_; }

 private:
  ProtectionSpace space_;
  int previousFailureCount_;
  std::optional<URLCredential> proposedCredential_;
  Answer answer_ = Answer::None;
  std::optional<URLCredential> credential_;
};

}  // namespace vesk
