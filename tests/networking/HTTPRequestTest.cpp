// Requests against servers on 127.0.0.1: cpp-httplib over HTTP and HTTPS with certificates made
// by openssl, and a raw socket server for broken replies.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "foundation/RunLoop.h"
#include "networking/TestServers.h"
#include "networking/URLErrors.h"
#include "networking/VESKHTTPRequest.h"

namespace vesk {
namespace {

using test::kResourceSize;
using test::RawServer;
using test::TestServer;
using ::testing::AnyOf;
using ::testing::StartsWith;

const std::string kResource = test::resourceBytes(kResourceSize);

std::string text(const Data& data) { return std::string(data.begin(), data.end()); }

struct Recorder : VESKHTTPRequestDelegate {
  bool respondsToSelector(std::string_view) const override { return true; }
  void notifyProgress(const Value& percentage, VESKHTTPRequest&) override {
    progress.push_back(percentage.doubleValue());
  }
  std::optional<URLCredential> credentialNeededForServerRequest(
      VESKHTTPRequest&, const std::string& fromServer) override {
    askedFrom.push_back(fromServer);
    return identity;
  }
  std::vector<double> progress;
  std::optional<URLCredential> identity;
  std::vector<std::string> askedFrom;
};

// Runs the request: "" when it succeeds, else the exception's name and reason, after "416 " for
// the exception that says the range could not be served.
std::string failureOf(VESKHTTPRequest& request) {
  try {
    request.submitRequest();
  } catch (const Exception& e) {
    const bool range = dynamic_cast<const VESKNetworkingExceptionRangeNotSatisfiable*>(&e);
    return (range ? "416 " : "") + e.name() + ": " + e.reason();
  }
  return "";
}

// Runs the request: the body it brought, or the code of the error that ended it.
std::string outcomeOf(VESKHTTPRequest& request) {
  failureOf(request);
  return request.errored() ? std::to_string(request.error()->code())
                           : text(request.httpResponse()->responseData());
}

class HTTPRequestTest : public ::testing::Test {
 protected:
  // Made once, for the tests that speak TLS; VESK_ROOT then names a root that trusts their CA.
  static const test::TestCertificates& certificates() {
    static const test::TestCertificates made;
    ::setenv("VESK_ROOT", made.trustingRoot().c_str(), 1);
    return made;
  }
  std::string path(const std::string& name) const { return (folder.path() / name).string(); }

  test::TemporaryFolder folder;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

// Every way a download ends, into memory or into a file, and what the file holds after.
TEST_F(HTTPRequestTest, DownloadsEndWithTheWholeBodyOrAFailureAndTheRightFile) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string precious = folder.write("precious", "keep me").string();
  std::filesystem::create_symlink(precious, path("link.bin"));
  folder.write("plain-file", "x");
  auto failure = [](const char* domain, long code, const std::string& description) {
    return fmt::format("Networking Error: Connection failure: \"Error Domain={} Code={} \"{}\"\"",
                       domain, code, description);
  };
  auto statusFailure = [&](long code) {
    return failure("", code,
                   fmt::format("The operation couldn\u2019t be completed. ( error {}.)", code));
  };
  auto urlFailure = [&](long code, const char* description) {
    return failure("NSURLErrorDomain", code, description);
  };
  const std::string unreadable = urlFailure(
      kURLErrorBadServerResponse, "The server returned a response that could not be read.");
  const std::string lost =
      urlFailure(kURLErrorNetworkConnectionLost, "The network connection was lost.");
  const std::string unopenable = "URL Download Error: Unable to initialize output file ";
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n";
  const std::string noFile = "(no file)";
  using Raw = RawServer::Ending;
  struct Download {
    const char* name;
    std::string resource;  // on the test server, or a raw server's reply
    std::string file;      // "" for a download into memory
    std::string held;      // written to the file beforehand, unless ""
    std::int64_t resumeFrom;
    std::int64_t status;
    std::string failure;  // as failureOf gives it
    std::string ranges;   // the Range header of each request the test server saw, "-" for none
    std::string after;    // what the file holds afterwards, or the body in memory
    std::optional<Raw> raw = std::nullopt;  // how a raw server ends after its reply
  };
  const std::vector<Download> downloads = {
      {"into memory", "/file", "", "", 0, 200, "", "-", kResource},
      {"redirected", "/redirect", "", "", 0, 200, "", "- -", kResource},
      {"resumed", "/file", "resumed.bin", kResource.substr(0, 1000), 1000, 206, "", "bytes=1000-",
       kResource},
      {"range ignored", "/ignore-range", "restart.bin", std::string(1000, 'J'), 1000, 200, "",
       "bytes=1000-", kResource},
      {"range ignored in memory", "/ignore-range", "", "", 1000, 200, "", "bytes=1000-", kResource},
      {"416 starts the file over once, plainly", "/file", "stale.bin",
       std::string(kResourceSize + 10, 'S'), kResourceSize + 10, 200, "", "bytes=262154- -",
       kResource},
      {"416 in memory", "/file", "", "", kResourceSize + 10, 416, "416 " + statusFailure(416),
       "bytes=262154-", ""},
      {"404 leaves no empty file", "/status/404", "nothing/here.bin", "", 0, 404,
       statusFailure(404), "-", noFile},
      {"500 keeps a partial file", "/status/500", "partial.bin", "0123456789", 10, 500,
       statusFailure(500), "bytes=10-", "0123456789"},
      {"file that cannot be opened", "/file", "plain-file/inside.bin", "", 0, 0,
       unopenable + path("plain-file/inside.bin"), "", noFile},
      {"resumed through a link", "/file", "link.bin", "", 7, 0, unopenable + path("link.bin"), "",
       "keep me"},
      {"link replaced by a fresh download", "/file", "link.bin", "", 0, 200, "", "-", kResource},
      {"malformed status line", "HTTP/1.1 two hundred\r\n\r\nbody", "bad.bin", "", 0, 0, unreadable,
       "", noFile, Raw::Close},
      {"not HTTP at all", "SSH-2.0-OpenSSH\r\n", "ssh.bin", "", 0, 0, unreadable, "", noFile,
       Raw::Close},
      {"1 MB header", "HTTP/1.1 200 OK\r\nX-Big: " + std::string(1 << 20, 'h') + "\r\n\r\n",
       "big.bin", "", 0, 0, unreadable, "", noFile, Raw::Close},
      {"short body", head + std::string(400, 'b'), "short.bin", "", 0, 200, lost, "",
       std::string(400, 'b'), Raw::Close},
      {"reset mid-body", head + std::string(400, 'b'), "reset.bin", "", 0, 200, lost, "",
       std::string(400, 'b'), Raw::Reset},
      {"nothing at all", "", "empty.bin", "", 0, 0, lost, "", noFile, Raw::Close},
  };
  for (const Download& d : downloads) {
    SCOPED_TRACE(d.name);
    const std::size_t before = server.requests().size();
    std::optional<RawServer> raw;
    if (d.raw) raw.emplace(d.resource, *d.raw);
    auto progress = std::make_shared<Recorder>();
    VESKHTTPRequest request(raw ? raw->url() : server.url(d.resource));
    request.setDelegate(progress);
    if (!d.file.empty()) request.setDownloadFilePath(path(d.file));
    if (!d.held.empty()) folder.write(d.file, d.held);
    request.setResumeFromLocation(d.resumeFrom);

    EXPECT_EQ(failureOf(request), d.failure);
    const auto response = request.httpResponse();
    EXPECT_EQ(response->responseCode(), d.status);
    const auto seen = server.requests();
    std::string ranges;
    for (std::size_t i = before; i < seen.size(); ++i) {
      const std::string range = seen[i].get_header_value("Range");
      ranges += (ranges.empty() ? "" : " ") + (range.empty() ? "-" : range);
    }
    EXPECT_EQ(ranges, d.ranges);
    EXPECT_TRUE(text(response->responseData()) == (d.file.empty() ? d.after : ""));
    if (!d.file.empty() && d.after == noFile) {
      EXPECT_FALSE(std::filesystem::exists(path(d.file)));
    } else if (!d.file.empty()) {
      EXPECT_TRUE(test::readFile(path(d.file)) == d.after);
    }
    if (d.failure.empty()) {  // counted from the offset when the range was served
      EXPECT_EQ(response->bytesDownloaded(), kResourceSize);
      EXPECT_EQ(request.expectedContentLength(), kResourceSize);
      ASSERT_FALSE(progress->progress.empty());
      EXPECT_DOUBLE_EQ(progress->progress.back(), 100.0);
      EXPECT_TRUE(std::is_sorted(progress->progress.begin(), progress->progress.end()));
    }
  }
  EXPECT_EQ(test::readFile(precious), "keep me");
}

TEST_F(HTTPRequestTest, BasicAndDigestAnswerWithTheCredentialsOnlyWhenBothAreSet) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string cancelled = std::to_string(kURLErrorUserCancelledAuthentication);
  for (const std::string resource : {"/basic", "/digest"}) {
    struct Attempt {
      std::string user;
      std::optional<std::string> password;
      std::string outcome;  // as outcomeOf gives it
    };
    const std::vector<Attempt> attempts = {
        {test::kUser, test::kPassword, resource.substr(1) + " ok"},
        {test::kUser, std::nullopt, "401"},  // nothing is sent: the 401 is the answer
        {"", "only a password", "401"},
        // A credential the server refuses is tried once, then the challenge is cancelled; an
        // empty password is a password.
        {test::kUser, "wrong", cancelled},
        {test::kUser, "", cancelled},
    };
    for (const Attempt& attempt : attempts) {
      SCOPED_TRACE(resource + " " + attempt.user + ":" + attempt.password.value_or("(none)"));
      VESKHTTPRequest request(server.url(resource));
      request.setUsername(attempt.user);
      request.setPassword(attempt.password);
      EXPECT_EQ(outcomeOf(request), attempt.outcome);
    }
  }
  const auto seen = server.requests();
  // Basic goes out before any challenge: the good request needed one exchange, and the two
  // without a full credential sent none.
  ASSERT_GT(seen.size(), 3u);
  EXPECT_THAT(seen[0].get_header_value("Authorization"), StartsWith("Basic "));
  EXPECT_FALSE(seen[1].has_header("Authorization") || seen[2].has_header("Authorization"));
  // One Digest answer per wrong or good credential, though the server offers Basic too; and
  // never a second Authorization header beside it.
  std::size_t digestAnswers = 0;
  for (const auto& request : seen) {
    digestAnswers += request.get_header_value("Authorization").rfind("Digest ", 0) == 0;
    EXPECT_LE(request.get_header_value_count("Authorization"), 1u) << request.path;
  }
  EXPECT_EQ(digestAnswers, 3u);
}

// Who trusts whom: a server by the trust bundle and its name, unless invalid certificates are
// allowed; the client by an identity only the delegate gives, and only for the server named.
TEST_F(HTTPRequestTest, TrustAndClientIdentityFollowTheBundleTheNameAndTheDelegate) {
  const auto& certificates = HTTPRequestTest::certificates();
  TestServer selfSigned(&certificates, TestServer::Identity::SelfSigned);
  TestServer signed_(&certificates, TestServer::Identity::CASigned);
  TestServer asking(&certificates, TestServer::Identity::CASigned, true);
  const std::string whoami = asking.url("/whoami", "localhost");
  auto file = [&](const char* name) { return certificates.file(name).string(); };
  const auto pem = URLCredential::credentialWithCertificateFiles(
      file("client.pem"), file("client-encrypted.key"), "key-secret");
  const auto p12 = URLCredential::credentialWithPKCS12File(file("client.p12"), "p12-secret");
  const std::string jss = "https://jss.example.com:8443";
  const std::string untrusted = std::to_string(kURLErrorServerCertificateUntrusted);
  const std::string required = std::to_string(kURLErrorClientCertificateRequired);
  struct Case {
    const char* name;
    std::string url;
    bool allowInvalid;
    std::optional<URLCredential> identity;  // the delegate's
    std::string address;                    // of the server the delegate is asked an identity for
    std::string outcome;                    // as outcomeOf gives it
  };
  const std::vector<Case> cases = {
      {"self-signed", selfSigned.url("/whoami"), false, {}, "", untrusted},
      {"self-signed, allowed", selfSigned.url("/whoami"), true, {}, "", "anonymous"},
      {"signed, by its name", signed_.url("/whoami", "localhost"), false, {}, "", "anonymous"},
      // After an allowed one, which must not carry over.
      {"signed, by another name", signed_.url("/whoami"), false, {}, "", untrusted},
      {"PEM identity", whoami, false, pem, jss, "/CN=vesk-client"},
      {"PKCS#12 identity", whoami, false, p12, jss, "/CN=vesk-client"},
      {"no address: the delegate is not asked", whoami, false, pem, "", required},
      {"a wrong PKCS#12 password", whoami, false,
       URLCredential::credentialWithPKCS12File(file("client.p12"), "not-it"), jss, required},
      {"no identity", whoami, false, {}, jss, required},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    recorder->identity = c.identity;
    recorder->askedFrom.clear();
    VESKHTTPRequest request(c.url);
    request.setAllowInvalidCert(c.allowInvalid);
    request.setDelegate(recorder);
    request.setKsvAddressForCredential(c.address);
    EXPECT_EQ(outcomeOf(request), c.outcome);
    EXPECT_EQ(recorder->askedFrom,
              c.address.empty() ? std::vector<std::string>{} : std::vector{c.address});
    if (c.outcome != untrusted) continue;
    EXPECT_EQ(request.httpResponse()->responseCode(), 403);
    EXPECT_EQ(
        request.error()->localizedDescription(),
        "Connection failure: \"Error Domain=NSURLErrorDomain Code=-1202 \"The certificate for this server is invalid. You might be connecting to a server that is pretending to be \u201c127.0.0.1\u201d which could put your confidential information at risk.\"\"");
  }
}

TEST_F(HTTPRequestTest, FileBodyIsStreamedWithItsHeadersAndUploadProgress) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string body = test::resourceBytes(300 * 1000);
  folder.write("upload.bin", body);
  VESKHTTPRequest request(server.url("/echo"));
  request.setPostFilePath(path("upload.bin"));
  request.addHeaderValue("one", "X-Custom");
  request.addHeaderValue("two", "x-custom");  // the same header, in other case
  request.setDelegate(recorder);
  const auto response = request.submitRequest();
  EXPECT_TRUE(text(response->responseData()) == body);
  EXPECT_EQ(response->bytesUploaded(), 0u);  // streamed, not held
  EXPECT_EQ(request.currentUploadBytes(), body.size());
  EXPECT_FALSE(recorder->progress.empty());

  VESKHTTPRequest xml(server.url("/echo"), Data{'<', 'a', '/', '>'});
  EXPECT_EQ(text(xml.submitRequest()->responseData()), "<a/>");

  const auto seen = server.requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].get_header_value("Content-Type"), "multipart/form-data; charset=utf-8");
  EXPECT_EQ(seen[0].get_header_value("Content-Length"), "300000");
  EXPECT_FALSE(seen[0].has_header("Expect"));
  EXPECT_EQ(seen[0].get_header_value_count("X-Custom"), 1u);
  EXPECT_EQ(seen[0].get_header_value("X-Custom"), "two");
  EXPECT_EQ(seen[1].get_header_value("Content-Type"), "application/xml; charset=utf-8");
}

TEST_F(HTTPRequestTest, IdleServerTimesOutButASlowBodyDoesNot) {
  RawServer silent("", RawServer::Ending::Hang);
  VESKHTTPRequest request(silent.url());
  request.setTimeout(1);
  EXPECT_EQ(
      failureOf(request),
      "Networking Error: Connection failure: \"Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out.\"\"");
  EXPECT_EQ(request.urlRequest().timeoutInterval(), 1);

  // The time-out is for silence: a body that keeps coming may take longer as a whole.
  TestServer server(nullptr, TestServer::Identity::None);
  VESKHTTPRequest slow(server.url("/slow"));
  slow.setTimeout(1);
  EXPECT_EQ(slow.submitRequest()->responseData().size(), 8000u);
}

// Lets its request go the moment it hears the end, and starts the next one from there.
struct Releaser : Recorder, std::enable_shared_from_this<Releaser> {
  void notifyCompletedForRequest(VESKHTTPRequest& request) override {
    ended.emplace_back(request.httpResponse()->responseCode(), std::this_thread::get_id());
    owned.reset();
    if (!urls.empty()) start();
  }
  void start() {
    owned = std::make_unique<VESKHTTPRequest>(urls.front());
    urls.erase(urls.begin());
    owned->setDelegate(weak_from_this());
    owned->asyncSubmitRequest();
  }
  std::vector<std::string> urls;
  std::unique_ptr<VESKHTTPRequest> owned;
  std::vector<std::pair<std::int64_t, std::thread::id>> ended;  // the status, and where
};

TEST_F(HTTPRequestTest, CompletionComesOnTheSubmittingThreadAndMayReleaseTheRequest) {
  TestServer server(nullptr, TestServer::Identity::None);
  auto run = [&] {
    auto releaser = std::make_shared<Releaser>();
    releaser->urls = {server.url("/status/404"), server.url("/file")};
    releaser->start();
    EXPECT_TRUE(releaser->ended.empty());  // nothing before the loop runs
    EXPECT_TRUE(
        RunLoop::current().runUntilCondition([&] { return releaser->ended.size() == 2; }, 30));
    const auto here = std::this_thread::get_id();
    EXPECT_EQ(releaser->ended, (decltype(releaser->ended){{404, here}, {200, here}}));
    EXPECT_FALSE(releaser->owned);
  };
  run();
  std::thread(run).join();  // on a worker's loop, while this thread's stays idle
}

TEST_F(HTTPRequestTest, OnlyHttpAndHttpsUrlsAreFetchedAndNeverThroughAProxy) {
  for (const std::string url : {"file:///etc/passwd", "ftp://127.0.0.1/x", "not a url", ""}) {
    VESKHTTPRequest request(url);
    EXPECT_THAT(outcomeOf(request),
                AnyOf(std::to_string(kURLErrorUnsupportedURL), std::to_string(kURLErrorBadURL)))
        << url;
  }
  TestServer server(nullptr, TestServer::Identity::None);
  RawServer proxy("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n",
                  RawServer::Ending::Close);
  for (const char* name : {"http_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    ::setenv(name, proxy.url().c_str(), 1);
  VESKHTTPRequest request(server.url("/file"));
  EXPECT_EQ(request.submitRequest()->responseCode(), 200);  // not the proxy's 502
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
  EXPECT_EQ(test::runProgram(probe, {server.url("/file")}, environment).status, 0);
  ASSERT_TRUE(std::filesystem::exists(keys)) << "this curl does not log keys; nothing to check";
  std::filesystem::remove(keys);

  ASSERT_EQ(::chown(probe.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(probe.c_str(), 04755), 0);
  EXPECT_EQ(test::runProgram(probe, {server.url("/file")}, environment).status, 0);
  EXPECT_FALSE(std::filesystem::exists(keys));
}

TEST(RequestLogic, UploadProgressSubtractsTheRestartCountNotTheBytesResent) {
  VESKHTTPRequest request("http://127.0.0.1:9/upload");
  auto progress = std::make_shared<Recorder>();
  request.setDelegate(progress);
  // A connection to a port nobody listens on; nothing it does reaches the request.
  URLConnection connection(URLRequest("http://127.0.0.1:9/"), nullptr);
  // Sent totals as curl reports them: the body goes out again from its start, twice.
  for (const std::int64_t total : {400, 1000, 300, 100, 1000})
    request.connectionDidSendBodyData(connection, 0, total, 1000);
  EXPECT_EQ(request.currentUploadBytes(), 998u);
  EXPECT_EQ(progress->progress, (std::vector<double>{40, 100, 29.9, 9.8, 99.8}));
}

}  // namespace
}  // namespace vesk
