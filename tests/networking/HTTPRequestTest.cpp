// Requests against real servers on 127.0.0.1: cpp-httplib over HTTP and HTTPS with
// certificates made by openssl for the test, and a raw socket server for broken replies.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "foundation/RunLoop.h"
#include "networking/TestServers.h"
#include "networking/URLErrors.h"
#include "networking/VESKHTTPRequest.h"

namespace vesk {
namespace {

using test::kBigResourceSize;
using test::kPassword;
using test::kResourceSize;
using test::kUser;
using test::RawServer;
using test::TestServer;

const std::string kResource = test::resourceBytes(kResourceSize);

std::string text(const Data& data) { return std::string(data.begin(), data.end()); }

class Recorder : public VESKHTTPRequestDelegate {
 public:
  bool respondsToSelector(std::string_view selector) const override {
    return answers.count(std::string(selector)) != 0;
  }
  void notifyProgress(const Value& percentage, VESKHTTPRequest&) override {
    progress.push_back(percentage.doubleValue());
  }
  void notifyCompletedForRequest(VESKHTTPRequest&) override { ++completions; }
  std::optional<URLCredential> credentialNeededForServerRequest(
      VESKHTTPRequest&, const std::string& fromServer) override {
    askedFrom.push_back(fromServer);
    return identity;
  }

  std::set<std::string> answers = {"notifyProgress:forRequest:", "notifyCompletedForRequest:",
                                   "credentialNeededForServerRequest:fromServer:"};
  std::vector<double> progress;
  int completions = 0;
  std::optional<URLCredential> identity;
  std::vector<std::string> askedFrom;
};

class HTTPRequestTest : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", certificates.trustingRoot().c_str(), 1); }

  std::string path(const std::string& name) const { return (folder.path() / name).string(); }

  // Runs the request and answers the exception it raised, or nullopt.
  static std::optional<Exception> failureOf(VESKHTTPRequest& request, bool with416Check = true) {
    try {
      if (with416Check) {
        request.submitRequest();
      } else {
        request.submitRequestWithout416Check();
      }
    } catch (const Exception& e) {
      return e;
    }
    return std::nullopt;
  }

  test::TestCertificates certificates;
  test::TemporaryFolder folder;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(HTTPRequestTest, MemoryDownloadFillsTheResponseReportsProgressAndCompletesOnce) {
  TestServer server(nullptr, TestServer::Identity::None);
  for (const std::string resource : {"/file", "/redirect"}) {
    auto request = VESKHTTPRequest::requestWithUrl(server.url(resource));
    recorder->progress.clear();
    recorder->completions = 0;
    request->setDelegate(recorder);
    const auto response = request->submitRequest();
    EXPECT_EQ(response->responseCode(), 200);
    EXPECT_TRUE(text(response->responseData()) == kResource) << resource;
    EXPECT_EQ(response->bytesDownloaded(), kResourceSize);
    EXPECT_EQ(response->bytesUploaded(), 0u);
    EXPECT_EQ(response->totalBytes(), kResourceSize);
    EXPECT_TRUE(request->isCompleted());
    EXPECT_FALSE(request->errored());
    EXPECT_EQ(recorder->completions, 1);
    ASSERT_FALSE(recorder->progress.empty());
    EXPECT_DOUBLE_EQ(recorder->progress.back(), 100.0);
    EXPECT_TRUE(std::is_sorted(recorder->progress.begin(), recorder->progress.end()));
  }
  for (const auto& seen : server.requests()) {
    EXPECT_FALSE(seen.has("Authorization"));
    EXPECT_FALSE(seen.has("Range"));
  }
}

TEST_F(HTTPRequestTest, ResumedDownloadEndsByteIdenticalAndCountsFromTheOffset) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string file = path("downloads/resumed.bin");
  folder.write("downloads/resumed.bin", kResource.substr(0, 1000));
  VESKHTTPRequest request(server.url("/file"));
  request.setDownloadFilePath(file);
  request.setResumeFromLocation(1000);
  request.setDelegate(recorder);

  const auto response = request.submitRequest();
  EXPECT_EQ(response->responseCode(), 206);
  EXPECT_TRUE(test::readFile(file) == kResource);
  EXPECT_TRUE(response->responseData().empty());
  EXPECT_EQ(request.expectedContentLength(), kResourceSize);
  EXPECT_EQ(request.currentDownloadedBytes(), kResourceSize);
  EXPECT_EQ(response->bytesDownloaded(), kResourceSize);
  ASSERT_FALSE(recorder->progress.empty());
  // Counting starts at the offset: the first report already includes the 1000 bytes held.
  EXPECT_GT(recorder->progress.front(), 100.0 * 1000 / kResourceSize);
  EXPECT_EQ(server.requests().at(0).header("Range"), "bytes=1000-");
  EXPECT_EQ(request.headerValues()["Range"].stringValue(), "bytes=1000-");
}

TEST_F(HTTPRequestTest, ServerThatIgnoresTheRangeRestartsTheBodyFromEmpty) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string file = path("restart.bin");
  folder.write("restart.bin", std::string(1000, 'J'));
  VESKHTTPRequest toFile(server.url("/ignore-range"));
  toFile.setDownloadFilePath(file);
  toFile.setResumeFromLocation(1000);
  EXPECT_EQ(toFile.submitRequest()->responseCode(), 200);
  EXPECT_TRUE(test::readFile(file) == kResource);
  EXPECT_EQ(toFile.resumeFromLocation(), 0);
  EXPECT_EQ(toFile.currentDownloadedBytes(), kResourceSize);
  EXPECT_EQ(toFile.expectedContentLength(), kResourceSize);

  VESKHTTPRequest inMemory(server.url("/ignore-range"));
  inMemory.setResumeFromLocation(1000);
  EXPECT_TRUE(text(inMemory.submitRequest()->responseData()) == kResource);
  EXPECT_EQ(inMemory.resumeFromLocation(), 0);
}

TEST_F(HTTPRequestTest, RangeNotSatisfiableStartsAFileOverOnceWithAPlainRequest) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string file = path("stale.bin");
  folder.write("stale.bin", std::string(kResourceSize + 10, 'S'));
  VESKHTTPRequest request(server.url("/file"));
  request.setDownloadFilePath(file);
  request.setResumeFromLocation(kResourceSize + 10);
  request.addHeaderValue("kept?", "X-Custom");

  EXPECT_EQ(request.submitRequest()->responseCode(), 200);
  EXPECT_TRUE(test::readFile(file) == kResource);
  EXPECT_EQ(request.resumeFromLocation(), 0);
  const auto seen = server.requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].header("X-Custom"), "kept?");
  EXPECT_EQ(seen[0].header("Range"), "bytes=262154-");
  EXPECT_FALSE(seen[1].has("X-Custom"));
  EXPECT_FALSE(seen[1].has("Range"));

  // Without a file there is nothing to start over: the 416 is raised as such.
  VESKHTTPRequest inMemory(server.url("/file"));
  inMemory.setResumeFromLocation(kResourceSize + 10);
  try {
    inMemory.submitRequest();
    FAIL() << "no exception";
  } catch (const VESKNetworkingExceptionRangeNotSatisfiable& e) {
    EXPECT_EQ(e.name(), "Networking Error");
  }
  EXPECT_EQ(inMemory.httpResponse()->responseCode(), 416);
}

TEST_F(HTTPRequestTest, FailingStatusRaisesTheErrorsDescriptionAndLeavesNoEmptyFile) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string file = path("nothing/here.bin");
  VESKHTTPRequest request(server.url("/status/404"));
  request.setDownloadFilePath(file);
  try {
    request.submitRequest();
    FAIL() << "no exception";
  } catch (const VESKNetworkingExceptionRangeNotSatisfiable&) {
    FAIL() << "a 404 is not a 416";
  } catch (const VESKNetworkingException& e) {
    EXPECT_EQ(e.name(), "Networking Error");
    EXPECT_EQ(e.reason(),
              "Connection failure: \"Error Domain= Code=404 \"The operation couldn\u2019t be "
              "completed. ( error 404.)\"\"");
  }
  EXPECT_EQ(request.httpResponse()->responseCode(), 404);
  ASSERT_TRUE(request.error());
  EXPECT_EQ(request.error()->domain(), "");
  EXPECT_EQ(request.error()->code(), 404);
  EXPECT_TRUE(request.errored());
  EXPECT_FALSE(std::filesystem::exists(file));

  // A partial file with data is kept for a later resume, untouched.
  folder.write("partial.bin", "0123456789");
  VESKHTTPRequest resume(server.url("/status/500"));
  resume.setDownloadFilePath(path("partial.bin"));
  resume.setResumeFromLocation(10);
  ASSERT_TRUE(failureOf(resume));
  EXPECT_EQ(resume.error()->code(), 500);
  EXPECT_EQ(test::readFile(path("partial.bin")), "0123456789");
}

TEST_F(HTTPRequestTest, BasicAndDigestAnswerWithTheCredentialsOnlyWhenBothAreSet) {
  TestServer server(nullptr, TestServer::Identity::None);
  for (const std::string resource : {"/basic", "/digest"}) {
    SCOPED_TRACE(resource);
    VESKHTTPRequest good(server.url(resource));
    good.setUsername(kUser);
    good.setPassword(kPassword);
    EXPECT_EQ(text(good.submitRequest()->responseData()), resource.substr(1) + " ok");

    // A user name without a password: nothing is sent and the 401 is the answer.
    VESKHTTPRequest noPassword(server.url(resource));
    noPassword.setUsername(kUser);
    ASSERT_TRUE(failureOf(noPassword));
    EXPECT_EQ(noPassword.error()->code(), 401);
    EXPECT_EQ(noPassword.httpResponse()->responseCode(), 401);

    // A credential the server refuses is tried once, then the challenge is cancelled.
    VESKHTTPRequest wrong(server.url(resource));
    wrong.setUsername(kUser);
    wrong.setPassword("wrong");
    ASSERT_TRUE(failureOf(wrong));
    EXPECT_EQ(wrong.error()->code(), kURLErrorUserCancelledAuthentication);
    EXPECT_EQ(wrong.error()->domain(), kURLErrorDomain);
  }
  const auto seen = server.requests();
  // Basic is sent before any challenge: the good request needed one exchange.
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen[0].path, "/basic");
  EXPECT_EQ(seen[0].header("Authorization").rfind("Basic ", 0), 0u);
  ASSERT_GT(seen.size(), 1u);
  EXPECT_FALSE(seen[1].has("Authorization"));  // the request without a password
  // One Digest answer for each credential given (the good one and the wrong one): a refused
  // credential is not sent again. No request carries two Authorization headers.
  std::size_t digestAnswers = 0;
  for (const auto& request : seen) {
    if (request.path == "/digest" && request.header("Authorization").rfind("Digest ", 0) == 0)
      ++digestAnswers;
    EXPECT_LE(std::count_if(request.headers.begin(), request.headers.end(),
                            [](const auto& header) { return header.first == "Authorization"; }),
              1);
  }
  EXPECT_EQ(digestAnswers, 2u);
}

TEST_F(HTTPRequestTest, UntrustedServerFailsWith1202And403UnlessInvalidCertificatesAreAllowed) {
  TestServer selfSigned(&certificates, TestServer::Identity::SelfSigned);
  VESKHTTPRequest strict(selfSigned.url("/file"));
  const auto failure = failureOf(strict);
  ASSERT_TRUE(failure);
  EXPECT_EQ(strict.error()->code(), kURLErrorServerCertificateUntrusted);
  EXPECT_EQ(strict.httpResponse()->responseCode(), 403);
  EXPECT_EQ(failure->reason().rfind("Connection failure: \"Error Domain=NSURLErrorDomain "
                                    "Code=-1202 \"The certificate for this server is invalid.",
                                    0),
            0u)
      << failure->reason();

  VESKHTTPRequest lenient(selfSigned.url("/file"));
  lenient.setAllowInvalidCert(true);
  EXPECT_TRUE(text(lenient.submitRequest()->responseData()) == kResource);

  // Signed by a CA of the trust bundle: trusted under its own name, not under another.
  TestServer signed_(&certificates, TestServer::Identity::CASigned);
  VESKHTTPRequest byName(signed_.url("/file", "localhost"));
  EXPECT_TRUE(text(byName.submitRequest()->responseData()) == kResource);
  VESKHTTPRequest byAddress(signed_.url("/file"));
  ASSERT_TRUE(failureOf(byAddress));
  EXPECT_EQ(byAddress.error()->code(), kURLErrorServerCertificateUntrusted);
}

TEST_F(HTTPRequestTest, TheLastRequestPreparedDecidesTrustForEveryConnectionRunning) {
  TestServer selfSigned(&certificates, TestServer::Identity::SelfSigned);
  VESKHTTPRequest strict(selfSigned.url("/file"));
  VESKHTTPRequest lenient(selfSigned.url("/file"));
  lenient.setAllowInvalidCert(true);
  strict.asyncSubmitRequest();
  lenient.asyncSubmitRequest();  // switches every running connection to "allow"
  EXPECT_FALSE(strict.isCompleted());
  ASSERT_TRUE(RunLoop::current().runUntilCondition(
      [&] { return strict.isCompleted() && lenient.isCompleted(); }, 30));
  EXPECT_FALSE(strict.errored());
  EXPECT_EQ(strict.httpResponse()->responseCode(), 200);

  // Prepared alone, the strict one fails again.
  VESKHTTPRequest again(selfSigned.url("/file"));
  ASSERT_TRUE(failureOf(again));
  EXPECT_EQ(again.error()->code(), kURLErrorServerCertificateUntrusted);
}

TEST_F(HTTPRequestTest, ClientIdentityComesFromTheDelegateForTheNamedServer) {
  TestServer server(&certificates, TestServer::Identity::CASigned, true);
  auto submitWith = [&](std::optional<URLCredential> identity, const std::string& address) {
    auto request = std::make_unique<VESKHTTPRequest>(server.url("/whoami", "localhost"));
    recorder->identity = std::move(identity);
    recorder->askedFrom.clear();
    request->setDelegate(recorder);
    request->setKsvAddressForCredential(address);
    failureOf(*request);
    return request;
  };
  const auto pem = URLCredential::credentialWithCertificateFiles(
      certificates.file("client.pem"), certificates.file("client-encrypted.key"), "key-secret");
  const auto p12 =
      URLCredential::credentialWithPKCS12File(certificates.file("client.p12"), "p12-secret");
  for (const auto& identity : {pem, p12}) {
    const auto request = submitWith(identity, "https://jss.example.com:8443");
    EXPECT_FALSE(request->errored()) << request->error()->localizedDescription();
    EXPECT_EQ(text(request->httpResponse()->responseData()), "/CN=vesk-client");
    EXPECT_EQ(recorder->askedFrom, std::vector<std::string>{"https://jss.example.com:8443"});
  }

  // No address: the delegate is never asked and the server refuses us.
  auto anonymous = submitWith(pem, "");
  EXPECT_TRUE(anonymous->errored());
  EXPECT_TRUE(recorder->askedFrom.empty());
  EXPECT_EQ(anonymous->error()->code(), kURLErrorClientCertificateRequired);
  // An identity the server does not know, a wrong key password, and none at all.
  const auto stranger = URLCredential::credentialWithCertificateFiles(
      certificates.file("stranger.pem"), certificates.file("stranger.key"));
  const auto badPassword =
      URLCredential::credentialWithPKCS12File(certificates.file("client.p12"), "not-it");
  for (const auto& identity :
       std::vector<std::optional<URLCredential>>{stranger, badPassword, std::nullopt}) {
    EXPECT_TRUE(submitWith(identity, "https://jss.example.com:8443")->errored());
    EXPECT_EQ(recorder->askedFrom.size(), 1u);
  }
}

TEST_F(HTTPRequestTest, FileBodyIsStreamedWithItsHeadersAndUploadProgress) {
  RawServer server("", RawServer::Ending::Echo);
  const std::string body = test::resourceBytes(300 * 1000);
  folder.write("upload.bin", body);
  VESKHTTPRequest request(server.url());
  request.setPostFilePath(path("upload.bin"));
  request.setUploadFilePath(path("upload.bin"));
  request.setDelegate(recorder);
  recorder->answers = {"notifyProgress:forRequest:"};
  EXPECT_EQ(request.expectedContentLength(), body.size());

  const auto response = request.submitRequest();
  EXPECT_TRUE(text(response->responseData()) == body);
  EXPECT_EQ(response->bytesUploaded(), 0u);  // streamed, not held
  EXPECT_EQ(request.currentUploadBytes(), body.size());
  const std::string head = server.heads().at(0);
  EXPECT_EQ(head.rfind("POST /raw HTTP/1.1\r\n", 0), 0u) << head;
  EXPECT_NE(head.find("\r\nContent-Type: multipart/form-data; charset=utf-8"), std::string::npos);
  EXPECT_NE(head.find("\r\nContent-Length: 300000"), std::string::npos);
  EXPECT_EQ(head.find("Expect:"), std::string::npos);
  ASSERT_FALSE(recorder->progress.empty());

  VESKHTTPRequest xml(server.url(), Data{'<', 'a', '/', '>'});
  const auto echoed = xml.submitRequest();
  EXPECT_EQ(text(echoed->responseData()), "<a/>");
  EXPECT_EQ(echoed->bytesUploaded(), 4u);
  EXPECT_EQ(echoed->totalBytes(), 8u);
  EXPECT_NE(server.heads().at(1).find("\r\nContent-Type: application/xml; charset=utf-8"),
            std::string::npos);
}

TEST_F(HTTPRequestTest, BrokenRepliesEndInAnErrorAndKeepWhatArrivedForAResume) {
  struct Case {
    const char* name;
    std::string reply;
    RawServer::Ending ending;
    long code;
    std::size_t kept;  // bytes left in the download file
  };
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n";
  const std::vector<Case> cases = {
      {"malformed status line", "HTTP/1.1 two hundred\r\n\r\nbody", RawServer::Ending::Close,
       kURLErrorBadServerResponse, 0},
      {"not HTTP at all", "SSH-2.0-OpenSSH\r\n", RawServer::Ending::Close,
       kURLErrorBadServerResponse, 0},
      {"1 MB header", "HTTP/1.1 200 OK\r\nX-Big: " + std::string(1 << 20, 'h') + "\r\n\r\n",
       RawServer::Ending::Close, kURLErrorBadServerResponse, 0},
      {"short body", head + std::string(400, 'b'), RawServer::Ending::Close,
       kURLErrorNetworkConnectionLost, 400},
      {"reset mid-body", head + std::string(400, 'b'), RawServer::Ending::Reset,
       kURLErrorNetworkConnectionLost, 400},
      {"nothing at all", "", RawServer::Ending::Close, kURLErrorNetworkConnectionLost, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawServer server(c.reply, c.ending);
    const std::string file = path(std::string("broken-") + std::to_string(c.kept) + ".bin");
    std::filesystem::remove(file);
    VESKHTTPRequest request(server.url());
    request.setDownloadFilePath(file);
    const auto failure = failureOf(request);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->name(), "Networking Error");
    EXPECT_EQ(request.error()->code(), c.code) << request.error()->description();
    if (c.kept == 0) {
      EXPECT_FALSE(std::filesystem::exists(file));
    } else {
      EXPECT_EQ(test::readFile(file), std::string(c.kept, 'b'));
    }
  }
}

TEST_F(HTTPRequestTest, IdleServerTimesOutButASlowBodyDoesNot) {
  RawServer silent("", RawServer::Ending::Hang);
  VESKHTTPRequest request(silent.url());
  request.setTimeout(1);
  const auto failure = failureOf(request);
  ASSERT_TRUE(failure);
  EXPECT_EQ(request.error()->code(), kURLErrorTimedOut);
  EXPECT_NE(failure->reason().find("The request timed out."), std::string::npos);

  // The time-out is for silence: a body that keeps coming may take longer as a whole.
  TestServer server(nullptr, TestServer::Identity::None);
  VESKHTTPRequest slow(server.url("/slow"));
  slow.setTimeout(1);
  EXPECT_EQ(slow.submitRequest()->responseData().size(), 8000u);
}

TEST_F(HTTPRequestTest, AsynchronousSubmissionReportsOnTheLoopAndCanBeRepeated) {
  TestServer server(nullptr, TestServer::Identity::None);
  VESKHTTPRequest request(server.url("/file"));
  request.setDelegate(recorder);
  std::shared_ptr<VESKHTTPResponse> first;
  for (int round = 1; round <= 2; ++round) {
    request.asyncSubmitRequest();
    EXPECT_FALSE(request.isCompleted());
    ASSERT_TRUE(
        RunLoop::current().runUntilCondition([&] { return recorder->completions == round; }, 30));
    EXPECT_TRUE(text(request.httpResponse()->responseData()) == kResource);
    if (round == 1) first = request.httpResponse();
  }
  EXPECT_NE(first, request.httpResponse());  // each submission has a response of its own
  EXPECT_TRUE(text(first->responseData()) == kResource);

  // A request prepared on another thread reports on that thread's loop, while this one's is idle.
  class ThreadRecorder : public Recorder {
   public:
    void notifyCompletedForRequest(VESKHTTPRequest& request) override {
      Recorder::notifyCompletedForRequest(request);
      thread = std::this_thread::get_id();
    }
    std::thread::id thread;
  };
  auto threadRecorder = std::make_shared<ThreadRecorder>();
  std::thread::id worker;
  std::thread([&] {
    worker = std::this_thread::get_id();
    VESKHTTPRequest elsewhere(server.url("/file"));
    elsewhere.setDelegate(threadRecorder);
    elsewhere.asyncSubmitRequest();
    RunLoop::current().runUntilCondition([&] { return threadRecorder->completions == 1; }, 30);
  }).join();
  EXPECT_EQ(threadRecorder->completions, 1);
  EXPECT_EQ(threadRecorder->thread, worker);
}

// The owner of a request may let it go the moment it hears the end, and start another.
class Releaser : public VESKHTTPRequestDelegate {
 public:
  bool respondsToSelector(std::string_view) const override { return true; }
  void notifyCompletedForRequest(VESKHTTPRequest& request) override {
    codes.push_back(request.httpResponse()->responseCode());
    owned.reset();
    if (!next.empty()) {
      owned = std::make_unique<VESKHTTPRequest>(next);
      next.clear();
      owned->setDelegate(self);
      owned->asyncSubmitRequest();
    }
  }
  std::unique_ptr<VESKHTTPRequest> owned;
  std::string next;
  std::weak_ptr<Releaser> self;
  std::vector<std::int64_t> codes;
};

TEST_F(HTTPRequestTest, RequestMayBeReleasedAndReplacedFromItsOwnCompletion) {
  TestServer server(nullptr, TestServer::Identity::None);
  auto releaser = std::make_shared<Releaser>();
  releaser->self = releaser;
  releaser->next = server.url("/file");
  releaser->owned = std::make_unique<VESKHTTPRequest>(server.url("/status/404"));
  releaser->owned->setDelegate(releaser);
  releaser->owned->asyncSubmitRequest();
  ASSERT_TRUE(
      RunLoop::current().runUntilCondition([&] { return releaser->codes.size() == 2; }, 30));
  EXPECT_EQ(releaser->codes, (std::vector<std::int64_t>{404, 200}));
  EXPECT_FALSE(releaser->owned);
}

TEST_F(HTTPRequestTest, OutputFileThatCannotBeOpenedRaisesAndLinksAreNeverFollowed) {
  TestServer server(nullptr, TestServer::Identity::None);
  folder.write("plain-file", "x");
  const std::string impossible = path("plain-file/inside.bin");
  VESKHTTPRequest request(server.url("/file"));
  request.setDownloadFilePath(impossible);
  try {
    request.submitRequest();
    FAIL() << "no exception";
  } catch (const VESKNetworkingException&) {
    FAIL() << "not a networking failure";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "URL Download Error");
    EXPECT_EQ(e.reason(), "Unable to initialize output file " + impossible);
  }
  EXPECT_TRUE(server.requests().empty());

  // A link planted where the download goes: never written through.
  const std::string target = folder.write("precious", "keep me").string();
  std::filesystem::create_symlink(target, path("link.bin"));
  VESKHTTPRequest resume(server.url("/file"));
  resume.setDownloadFilePath(path("link.bin"));
  resume.setResumeFromLocation(7);
  const auto failure = failureOf(resume);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->name(), "URL Download Error");
  VESKHTTPRequest fresh(server.url("/file"));
  fresh.setDownloadFilePath(path("link.bin"));
  fresh.submitRequest();
  EXPECT_FALSE(std::filesystem::is_symlink(path("link.bin")));
  EXPECT_TRUE(test::readFile(path("link.bin")) == kResource);
  EXPECT_EQ(test::readFile(target), "keep me");
}

TEST_F(HTTPRequestTest, OnlyHttpAndHttpsUrlsAreFetched) {
  for (const std::string url : {"file:///etc/passwd", "ftp://127.0.0.1/x", "not a url", ""}) {
    VESKHTTPRequest request(url);
    ASSERT_TRUE(failureOf(request)) << url;
    EXPECT_TRUE(request.error()->code() == kURLErrorUnsupportedURL ||
                request.error()->code() == kURLErrorBadURL)
        << url << ": " << request.error()->description();
    EXPECT_TRUE(request.httpResponse()->responseData().empty());
  }
}

TEST_F(HTTPRequestTest, HundredMegabytesGoToTheFileNotToMemory) {
  TestServer server(nullptr, TestServer::Identity::None);
  VESKHTTPRequest request(server.url("/big"));
  request.setDownloadFilePath(path("big.bin"));
  const auto response = request.submitRequest();
  EXPECT_EQ(response->bytesDownloaded(), kBigResourceSize);
  EXPECT_TRUE(response->responseData().empty());
  EXPECT_EQ(std::filesystem::file_size(path("big.bin")), kBigResourceSize);
  const std::string pattern = test::resourceBytes(1 << 20);
  const std::string content = test::readFile(path("big.bin"));
  EXPECT_TRUE(content.compare(kBigResourceSize - pattern.size(), pattern.size(), pattern) == 0);
}

TEST_F(HTTPRequestTest, EnvironmentProxiesAreNeverUsed) {
  TestServer server(nullptr, TestServer::Identity::None);
  RawServer proxy("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n",
                  RawServer::Ending::Close);
  for (const char* name : {"http_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    ::setenv(name, proxy.url().c_str(), 1);
  VESKHTTPRequest request(server.url("/file"));
  EXPECT_EQ(request.submitRequest()->responseCode(), 200);
  EXPECT_TRUE(proxy.heads().empty());
}

// The agent is installed set-user-id root: whoever starts it must not make it write the TLS
// session secrets to a file of their choosing.
TEST_F(HTTPRequestTest, SetUserIdRunIgnoresTheKeyLogVariable) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  TestServer server(nullptr, TestServer::Identity::None);
  const auto probe = folder.path() / "http_probe";
  std::filesystem::copy_file(std::string(VESK_HELPERS_DIR) + "/http_probe", probe);
  std::filesystem::permissions(folder.path(), std::filesystem::perms::all);  // nobody may write
  const auto keys = folder.path() / "keys.log";
  std::vector<std::string> environment = test::environmentWithout({"SSLKEYLOGFILE"});
  environment.push_back("SSLKEYLOGFILE=" + keys.string());

  // Without the bit the variable works, so the check below can tell the difference.
  auto result = test::runProgram(probe, {server.url("/file")}, environment);
  EXPECT_EQ(result.output, "status=200\n");
  ASSERT_TRUE(std::filesystem::exists(keys)) << "this curl does not log keys; nothing to check";
  std::filesystem::remove(keys);

  ASSERT_EQ(::chown(probe.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(probe.c_str(), 04755), 0);
  result = test::runProgram(probe, {server.url("/file")}, environment);
  EXPECT_EQ(result.output, "status=200\n");
  EXPECT_FALSE(std::filesystem::exists(keys));
}

}  // namespace
}  // namespace vesk
