#include "networking/URLAuthentication.h"

namespace vesk {

URLCredential URLCredential::credentialWithUser(std::string user, std::string password,
                                                Persistence persistence) {
  URLCredential credential(Kind::Password);
  credential.user_ = std::move(user);
  credential.password_ = std::move(password);
  credential.persistence_ = persistence;
  return credential;
}

URLCredential URLCredential::credentialWithCertificateFiles(std::string certificatePath,
                                                            std::string keyPath,
                                                            std::string keyPassword) {
  URLCredential credential(Kind::ClientIdentity);
  credential.certificatePath_ = std::move(certificatePath);
  credential.keyPath_ = std::move(keyPath);
  credential.password_ = std::move(keyPassword);
  return credential;
}

URLCredential URLCredential::credentialWithPKCS12File(std::string path, std::string password) {
  URLCredential credential(Kind::ClientIdentity);
  credential.pkcs12Path_ = std::move(path);
  credential.password_ = std::move(password);
  return credential;
}

URLCredential URLCredential::credentialForTrust(const ServerTrust& /*trust*/) {
  return URLCredential(Kind::ServerTrust);
}

void AuthenticationChallenge::useCredential(URLCredential credential) {
  if (answer_ != Answer::None) return;
  answer_ = Answer::UseCredential;
  credential_ = std::move(credential);
}

void AuthenticationChallenge::continueWithoutCredential() {
  if (answer_ == Answer::None) answer_ = Answer::ContinueWithoutCredential;
}

void AuthenticationChallenge::cancel() {
  if (answer_ == Answer::None) answer_ = Answer::Cancel;
}

}  // namespace vesk
