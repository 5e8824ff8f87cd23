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

std::string text(const Data& data) { return std::string(data.begin(), data.end()); }

struct Recorder : VESKHTTPRequestDelegate {
  bool respondsToSelector(std::string_view) const override { return true; }
  void notifyProgress(const Value& percentage, VESKHTTPRequest&) override {
    progress.push_back(percentage.doubleValue());
  }
  std::optional<URLCredential> credentialNeededForServerRequest(
      VESKHTTPRequest&, const std::string& fromServer) override {
    askedFrom += fromServer;  // each time it is asked
    return identity;
  }
  std::vector<double> progress;
  std::optional<URLCredential> identity;
  std::string askedFrom;
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

// The named header of each request the server saw after the first `from`, up to its first space:
// "-" for a request without it, "+" between two of one request.
std::string seenHeaders(const TestServer& server, std::size_t from, const std::string& name) {
  std::string seen;
  const auto requests = server.requests();
  for (std::size_t r = from; r < requests.size(); ++r) {
    std::string values;
    for (std::size_t i = 0; i < requests[r].get_header_value_count(name); ++i) {
      const std::string value = requests[r].get_header_value(name, i);
      values += (i > 0 ? "+" : "") + value.substr(0, value.find(' '));
    }
    seen += (r > from ? " " : "") + (values.empty() ? "-" : values);
  }
  return seen;
}

class HTTPRequestTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return (folder.path() / name).string(); }

  test::TemporaryFolder folder;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

// Every way a download ends, into memory or into a file, and what the file holds after.
TEST_F(HTTPRequestTest, DownloadsEndWithTheWholeBodyOrAFailureAndTheRightFile) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string precious = folder.write("precious", "keep me").string();
  std::filesystem::create_symlink(precious, path("link.bin"));
  folder.write("plain", "x");
  const std::string failed = "Networking Error: Connection failure: \"Error Domain=";
  auto status = [&](int code) {
    return fmt::format("{0} Code={1} \"The operation couldn\u2019t be completed. ( error {1}.)\"\"",
                       failed, code);
  };
  const std::string url = failed + "NSURLErrorDomain Code=";
  const std::string unreadable =
      url + "-1011 \"The server returned a response that could not be read.\"\"";
  const std::string lost = url + "-1005 \"The network connection was lost.\"\"";
  const std::string unopenable = "URL Download Error: Unable to initialize output file ";
  const std::string ok = "HTTP/1.1 200 OK\r\n", head = ok + "Content-Length: 1000\r\n\r\n";
  const std::string whole = test::resourceBytes(kResourceSize);
  const std::string none = "(no file)", part(400, 'b'), huge(1 << 20, 'h');
  const std::int64_t past = kResourceSize + 10;
  struct Download {
    std::string resource;  // on the test server, or else a raw server's reply
    std::string file;      // "" for a download into memory
    std::string held;      // written to the file beforehand, unless ""
    std::int64_t resumeFrom, status;
    std::string failure;  // as failureOf gives it
    std::string ranges;   // as seenHeaders gives them
    std::string after;    // what the file holds afterwards, or the body in memory
    RawServer::Ending ending = RawServer::Ending::Close;
  };
  const std::vector<Download> downloads = {
      {"/file", "", "", 0, 200, "", "-", whole},
      {"/redirect", "", "", 0, 200, "", "- -", whole},
      {"/file", "resumed.bin", whole.substr(0, 1000), 1000, 206, "", "bytes=1000-", whole},
      // A server that ignores the range sends it all: the file starts over.
      {"/ignore-range", "restart.bin", std::string(1000, 'J'), 1000, 200, "", "bytes=1000-", whole},
      {"/ignore-range", "", "", 1000, 200, "", "bytes=1000-", whole},
      // A range past the end: a file starts over once, by a plain request; memory raises 416.
      {"/file", "stale.bin", std::string(past, 'S'), past, 200, "", "bytes=262154- -", whole},
      {"/file", "", "", past, 416, "416 " + status(416), "bytes=262154-", ""},
      // A failure leaves no empty file, but keeps a partial one for a later resume.
      {"/status/404", "nothing/here.bin", "", 0, 404, status(404), "-", none},
      {"/status/500", "partial.bin", "0123456789", 10, 500, status(500), "bytes=10-", "0123456789"},
      // Links are never followed, only replaced by a fresh download.
      {"/file", "plain/in.bin", "", 0, 0, unopenable + path("plain/in.bin"), "", none},
      {"/file", "link.bin", "", 7, 0, unopenable + path("link.bin"), "", "keep me"},
      {"/file", "link.bin", "", 0, 200, "", "-", whole},
      // Raw replies that are not HTTP, or that end before the body does.
      {"HTTP/1.1 two hundred\r\n\r\nbody", "bad.bin", "", 0, 0, unreadable, "", none},
      {"SSH-2.0-OpenSSH\r\n", "ssh.bin", "", 0, 0, unreadable, "", none},
      {ok + "X: " + huge + "\r\n\r\n", "big.bin", "", 0, 0, unreadable, "", none},
      {head + part, "short.bin", "", 0, 200, lost, "", part},
      {head + part, "reset.bin", "", 0, 200, lost, "", part, RawServer::Ending::Reset},
      {"", "empty.bin", "", 0, 0, lost, "", none},
  };
  for (const Download& d : downloads) {
    SCOPED_TRACE(fmt::format("{:.24} into '{}' from {}", d.resource, d.file, d.resumeFrom));
    const std::size_t before = server.requests().size();
    std::optional<RawServer> raw;
    if (!d.resource.starts_with("/")) raw.emplace(d.resource, d.ending);
    VESKHTTPRequest request(raw ? raw->url() : server.url(d.resource));
    recorder->progress.clear();
    request.setDelegate(recorder);
    if (!d.file.empty()) request.setDownloadFilePath(path(d.file));
    if (!d.held.empty()) folder.write(d.file, d.held);
    request.setResumeFromLocation(d.resumeFrom);

    EXPECT_EQ(failureOf(request), d.failure);
    const auto response = request.httpResponse();
    EXPECT_EQ(response->responseCode(), d.status);
    EXPECT_EQ(seenHeaders(server, before, "Range"), d.ranges);
    const std::string body = text(response->responseData()), file = path(d.file);
    const bool exists = std::filesystem::exists(file);
    EXPECT_TRUE((d.file.empty() ? body : exists ? test::readFile(file) : none) == d.after);
    EXPECT_TRUE(d.file.empty() || body.empty());  // a file download keeps nothing in memory
    if (!d.failure.empty()) continue;
    // Counted from the offset when the range was served.
    EXPECT_EQ(response->bytesDownloaded(), kResourceSize);
    EXPECT_EQ(request.expectedContentLength(), kResourceSize);
    const auto& progress = recorder->progress;
    EXPECT_TRUE(!progress.empty() && progress.back() == 100.0);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  }
  EXPECT_EQ(test::readFile(precious), "keep me");
}

TEST_F(HTTPRequestTest, BasicAndDigestAnswerWithTheCredentialsOnlyWhenBothAreSet) {
  TestServer server(nullptr, TestServer::Identity::None);
  const std::string cancelled = std::to_string(kURLErrorUserCancelledAuthentication);
  struct Attempt {
    std::string resource, user;
    std::optional<std::string> password;
    std::string outcome;  // as outcomeOf gives it
    std::string schemes;  // of the Authorization headers, as seenHeaders gives them
  };
  const std::vector<Attempt> attempts = {
      // Basic goes out before any challenge, and only with a user and a password.
      {"/basic", test::kUser, test::kPassword, "basic ok", "Basic"},
      {"/basic", test::kUser, std::nullopt, "401", "-"},
      {"/basic", "", "only a password", "401", "-"},
      // A refused credential is tried once, then the challenge is cancelled; "" is a password.
      {"/basic", test::kUser, "wrong", cancelled, "Basic Basic"},
      {"/basic", test::kUser, "", cancelled, "Basic Basic"},
      // Offered Basic first, it answers by Digest, in place of (never beside) the Basic it sent.
      {"/digest", test::kUser, test::kPassword, "digest ok", "Basic - Digest"},
      {"/digest", test::kUser, "wrong", cancelled, "Basic - Digest"},
      {"/digest", test::kUser, "", cancelled, "Basic - Digest"},
  };
  for (const Attempt& a : attempts) {
    SCOPED_TRACE(a.resource + " " + a.user + ":" + a.password.value_or("(none)"));
    const std::size_t before = server.requests().size();
    VESKHTTPRequest request(server.url(a.resource));
    request.setUsername(a.user);
    request.setPassword(a.password);
    EXPECT_EQ(outcomeOf(request), a.outcome);
    EXPECT_EQ(seenHeaders(server, before, "Authorization"), a.schemes);
  }
}

// Who trusts whom: a server by the trust bundle and its name, unless invalid certificates are
// allowed; the client by an identity only the delegate gives, and only for the server named.
TEST_F(HTTPRequestTest, TrustAndClientIdentityFollowTheBundleTheNameAndTheDelegate) {
  const test::TestCertificates certificates;
  ::setenv("VESK_ROOT", certificates.trustingRoot().c_str(), 1);  // a root that trusts our CA
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
    EXPECT_EQ(recorder->askedFrom, c.address);
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

  ASSERT_EQ(seenHeaders(server, 0, "Content-Length"), "300000 4");  // the two requests
  const auto seen = server.requests();
  EXPECT_EQ(seen[0].get_header_value("Content-Type"), "multipart/form-data; charset=utf-8");
  EXPECT_EQ(seen[1].get_header_value("Content-Type"), "application/xml; charset=utf-8");
  EXPECT_EQ(seenHeaders(server, 0, "X-Custom"), "two -");  // once, the later value
  EXPECT_EQ(seenHeaders(server, 0, "Expect"), "- -");
}

TEST_F(HTTPRequestTest, IdleServerTimesOutButASlowBodyDoesNot) {
  RawServer silent("", RawServer::Ending::Hang);
  VESKHTTPRequest request(silent.url());
  request.setTimeout(1);
  EXPECT_EQ(
      failureOf(request),
      "Networking Error: Connection failure: \"Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out.\"\"");

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
    if (!next.empty()) start(std::exchange(next, ""));
  }
  void start(const std::string& url) {
    owned = std::make_unique<VESKHTTPRequest>(url);
    owned->setDelegate(weak_from_this());
    owned->asyncSubmitRequest();
  }
  std::string next;  // started when the running one ends
  std::unique_ptr<VESKHTTPRequest> owned;
  std::vector<std::pair<std::int64_t, std::thread::id>> ended;  // the status, and where
};

TEST_F(HTTPRequestTest, CompletionComesOnTheSubmittingThreadAndMayReleaseTheRequest) {
  TestServer server(nullptr, TestServer::Identity::None);
  auto run = [&] {
    auto releaser = std::make_shared<Releaser>();
    releaser->next = server.url("/file");
    releaser->start(server.url("/status/404"));
    EXPECT_TRUE(releaser->ended.empty());  // nothing before the loop runs
    EXPECT_TRUE(
        RunLoop::current().runUntilCondition([&] { return releaser->ended.size() == 2; }, 30));
    const auto here = std::this_thread::get_id();
    EXPECT_EQ(releaser->ended, (decltype(releaser->ended){{404, here}, {200, here}}));
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
  for (const char* name : {"http_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    ::setenv(name, "http://127.0.0.1:9", 1);  // a port nobody listens on
  VESKHTTPRequest request(server.url("/file"));
  EXPECT_EQ(request.submitRequest()->responseCode(), 200);
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
