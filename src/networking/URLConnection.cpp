#include "networking/URLConnection.h"

#include <curl/curl.h>
#include <glib-unix.h>
#include <glib.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/auxv.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <variant>
#include <vector>

#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "foundation/StringHelpers.h"
#include "networking/URLErrors.h"

namespace vesk {
namespace {

// The system's trust anchors, as every other program on the machine sees them.
constexpr const char* kTrustBundle = "/etc/ssl/certs/ca-certificates.crt";
// The most of a refused answer's body kept while its challenge is decided.
constexpr std::size_t kHeldBodyLimit = 1 << 20;
// How many delivered body buffers a transfer keeps for reuse.
constexpr std::size_t kSpareBuffers = 2;

void initializeCurl() {
  static std::once_flag once;
  std::call_once(once, [] {
    // The TLS layer appends its session secrets to the file this names. A set-user-id run
    // belongs to whoever started it only as far as reading goes: never let them choose.
    if (::getauxval(AT_SECURE) != 0) ::unsetenv("SSLKEYLOGFILE");
    curl_global_init(CURL_GLOBAL_DEFAULT);
  });
}

int transferIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

struct URLParts {
  std::string scheme;
  std::string host;
  int port = 0;
};

URLParts partsOf(const char* url) {
  URLParts parts;
  if (url == nullptr) return parts;
  CURLU* handle = curl_url();
  if (curl_url_set(handle, CURLUPART_URL, url, 0) == CURLUE_OK) {
    char* part = nullptr;
    if (curl_url_get(handle, CURLUPART_SCHEME, &part, 0) == CURLUE_OK) parts.scheme = part;
    curl_free(part);
    part = nullptr;
    if (curl_url_get(handle, CURLUPART_HOST, &part, 0) == CURLUE_OK) parts.host = part;
    curl_free(part);
    part = nullptr;
    if (curl_url_get(handle, CURLUPART_PORT, &part, CURLU_DEFAULT_PORT) == CURLUE_OK)
      parts.port = std::atoi(part);
    curl_free(part);
  }
  curl_url_cleanup(handle);
  // An IPv6 literal comes bracketed; certificates name it without.
  if (parts.host.size() > 2 && parts.host.front() == '[' && parts.host.back() == ']')
    parts.host = parts.host.substr(1, parts.host.size() - 2);
  return parts;
}

// The method a 401's WWW-Authenticate headers offer that we would answer first, strongest
// first; empty when none is one we know.
std::string offeredMethod(const HeaderFields& headers) {
  bool basic = false, digest = false, ntlm = false, negotiate = false;
  for (const auto& [name, value] : headers) {
    if (!sameHeaderField(name, "WWW-Authenticate")) continue;
    // Several challenges may share one header, separated by commas; a scheme is a token
    // that starts the header or follows a comma and is followed by a blank or the end.
    const std::string lower = lowercaseString(value);
    std::size_t start = 0;
    while (start <= lower.size()) {
      std::size_t end = lower.find(',', start);
      if (end == std::string::npos) end = lower.size();
      const std::string piece = strip(lower.substr(start, end - start));
      const std::string scheme = piece.substr(0, piece.find(' '));
      if (piece.find('=') == std::string::npos || piece.find(' ') < piece.find('=')) {
        basic |= scheme == "basic";
        digest |= scheme == "digest";
        ntlm |= scheme == "ntlm";
        negotiate |= scheme == "negotiate";
      }
      start = end + 1;
    }
  }
  if (digest) return kAuthenticationMethodHTTPDigest;
  if (basic) return kAuthenticationMethodHTTPBasic;
  if (negotiate) return kAuthenticationMethodNegotiate;
  if (ntlm) return kAuthenticationMethodNTLM;
  return {};
}

std::string realmOf(const HeaderFields& headers) {
  const std::string value = headerValue(headers, "WWW-Authenticate").value_or("");
  return findValueBetween(value, "realm=\"", "\"", 0).value_or("");
}

std::int64_t expectedLengthOf(const HeaderFields& headers) {
  if (auto encoding = headerValue(headers, "Transfer-Encoding")) {
    if (lowercaseString(*encoding).find("chunked") != std::string::npos) return -1;
  }
  const std::optional<std::string> length = headerValue(headers, "Content-Length");
  if (!length || length->empty()) return -1;
  std::int64_t value = 0;
  for (const char c : *length) {
    if (c < '0' || c > '9' || value > (INT64_MAX - 9) / 10) return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

bool loadIdentity(const URLCredential& credential, X509** certificate, EVP_PKEY** key) {
  X509* cert = nullptr;
  EVP_PKEY* pkey = nullptr;
  if (credential.isPKCS12()) {
    if (BIO* bio = BIO_new_file(credential.pkcs12Path().c_str(), "rb")) {
      if (PKCS12* p12 = d2i_PKCS12_bio(bio, nullptr)) {
        STACK_OF(X509)* chain = nullptr;
        PKCS12_parse(p12, credential.password().c_str(), &pkey, &cert, &chain);
        sk_X509_pop_free(chain, X509_free);
        PKCS12_free(p12);
      }
      BIO_free(bio);
    }
  } else {
    if (BIO* bio = BIO_new_file(credential.certificatePath().c_str(), "r")) {
      cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
      BIO_free(bio);
    }
    if (BIO* bio = BIO_new_file(credential.keyPath().c_str(), "r")) {
      pkey = PEM_read_bio_PrivateKey(bio, nullptr, nullptr,
                                     const_cast<char*>(credential.password().c_str()));
      BIO_free(bio);
    }
  }
  if (cert == nullptr || pkey == nullptr || X509_check_private_key(cert, pkey) != 1) {
    X509_free(cert);
    EVP_PKEY_free(pkey);
    ERR_clear_error();  // what failed here must not read as the handshake's failure
    return false;
  }
  *certificate = cert;  // the TLS library takes both
  *key = pkey;
  return true;
}

class CurlDriver;

}  // namespace

// One exchange's state on the curl side. The driver holds it while curl works on it; what
// curl reports from inside its calls is queued and handed to the delegate once curl has
// returned, so the delegate may cancel, start or even destroy connections as it likes.
class URLConnection::Transfer : public std::enable_shared_from_this<Transfer> {
 public:
  Transfer(URLConnection& owner, const URLRequest& request, URLConnectionDelegate* delegate)
      : owner_(owner), request_(request), delegate_(delegate) {
    initializeCurl();
    easy_ = curl_easy_init();
  }
  ~Transfer() {
    curl_slist_free_all(headers_);
    if (easy_ != nullptr) curl_easy_cleanup(easy_);
  }

  void start();
  void cancel();
  // Arms the idle timer for what is left of the time-out since the last activity.
  void watchIdleness();
  void checkIdleness();
  void touch() { lastActivity_ = std::chrono::steady_clock::now(); }
  bool cancelled() const { return delegate_ == nullptr; }
  CURL* handle() const { return easy_; }
  void detach() { driver_ = nullptr; }

  // Called by the driver, never while curl runs.
  void deliver();
  void finish(CURLcode result);

 private:
  struct Sent {
    std::int64_t written, total, expected;
  };
  using Event = std::variant<HTTPURLResponse, std::string, Sent>;

  void configure();
  void headerLine(std::string_view line);
  void beginBody();
  bool answerHTTPChallenge();
  bool decideTrust(bool chainTrusted, std::string reason);
  int provideIdentity(X509** certificate, EVP_PKEY** key);
  Error errorFor(CURLcode result) const;
  URLParts currentParts() const {
    char* url = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &url);
    return partsOf(url != nullptr ? url : request_.url().c_str());
  }

  static size_t onHeader(char* buffer, size_t size, size_t count, void* data);
  static size_t onBody(char* buffer, size_t size, size_t count, void* data);
  static size_t onRead(char* buffer, size_t size, size_t count, void* data);
  static int onSeek(void* data, curl_off_t offset, int origin);
  static int onProgress(void* data, curl_off_t, curl_off_t, curl_off_t uploadTotal,
                        curl_off_t uploaded);
  static CURLcode onTLSContext(CURL*, void* context, void* data);
  static int onVerifyChain(X509_STORE_CTX* store, void* data);
  static int onClientCertificateRequest(SSL* ssl, X509** certificate, EVP_PKEY** key);

  URLConnection& owner_;  // valid while the transfer is not cancelled
  const URLRequest request_;
  URLConnectionDelegate* delegate_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  CurlDriver* driver_ = nullptr;
  char errorBuffer_[CURL_ERROR_SIZE] = {};

  // The answer being read; an answer is final once its body starts or the exchange ends.
  HTTPURLResponse current_;
  bool headersComplete_ = false;
  bool bodyStarted_ = false;
  bool holdingChallenge_ = false;  // a 401 whose fate the delegate decides at the end
  std::string heldBody_;

  // Answers to the server's 401s: how many failed, and the credential now in use.
  int failedChallenges_ = 0;
  std::optional<URLCredential> credential_;
  std::string credentialMethod_;

  curl_off_t uploaded_ = 0;
  bool bodyStreamFailed_ = false;
  bool trustRejected_ = false;
  bool cancelledInHandshake_ = false;
  bool identityAsked_ = false;
  bool identitySent_ = false;
  std::string trustFailure_;

  std::deque<Event> events_;
  std::vector<std::string> spareBuffers_;  // delivered pieces' buffers, for the next pieces
  std::chrono::steady_clock::time_point lastActivity_;
  std::shared_ptr<Timer> idleTimer_;
};

namespace {

// The curl multi handle of one thread, whose sockets and timer are sources of that thread's
// run loop.
class CurlDriver {
 public:
  using Transfer = URLConnection::Transfer;

  static CurlDriver& current() {
    thread_local CurlDriver driver;
    return driver;
  }

  void add(std::shared_ptr<Transfer> transfer) {
    if (depth_ > 0) {
      pendingAdds_.push_back(std::move(transfer));
      return;
    }
    CURL* handle = transfer->handle();
    transfers_[handle] = std::move(transfer);
    curl_multi_add_handle(multi_, handle);
  }

  bool busy() const { return depth_ > 0; }

  void remove(Transfer& transfer) {
    auto it = transfers_.find(transfer.handle());
    if (it == transfers_.end()) return;
    if (depth_ > 0) {
      pendingRemovals_.push_back(it->second);
      return;
    }
    std::shared_ptr<Transfer> keep = it->second;
    transfers_.erase(it);
    curl_multi_remove_handle(multi_, keep->handle());
    keep->detach();
  }

 private:
  CurlDriver() : context_(RunLoop::current().context()) {
    initializeCurl();
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlDriver::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlDriver::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  }
  ~CurlDriver() {
    for (auto& [handle, transfer] : transfers_) {
      curl_multi_remove_handle(multi_, handle);
      transfer->detach();
    }
    transfers_.clear();
    for (auto& [socket, source] : watches_) dropSource(source);
    dropSource(timeout_);
    curl_multi_cleanup(multi_);
  }

  static void dropSource(GSource*& source) {
    if (source == nullptr) return;
    g_source_destroy(source);
    g_source_unref(source);
    source = nullptr;
  }

  static int onSocket(CURL*, curl_socket_t socket, int what, void* data, void*) {
    auto* self = static_cast<CurlDriver*>(data);
    if (auto it = self->watches_.find(socket); it != self->watches_.end()) {
      dropSource(it->second);
      self->watches_.erase(it);
    }
    if (what == CURL_POLL_REMOVE) return 0;
    int condition = 0;
    if (what & CURL_POLL_IN) condition |= G_IO_IN | G_IO_HUP | G_IO_ERR;
    if (what & CURL_POLL_OUT) condition |= G_IO_OUT | G_IO_ERR;
    GSource* source = g_unix_fd_source_new(socket, static_cast<GIOCondition>(condition));
    g_source_set_callback(source, G_SOURCE_FUNC(&CurlDriver::onReady), self, nullptr);
    g_source_attach(source, self->context_);
    self->watches_[socket] = source;
    return 0;
  }

  static int onTimer(CURLM*, long milliseconds, void* data) {
    auto* self = static_cast<CurlDriver*>(data);
    dropSource(self->timeout_);
    if (milliseconds < 0) return 0;
    self->timeout_ = g_timeout_source_new(static_cast<guint>(milliseconds));
    g_source_set_callback(self->timeout_, &CurlDriver::onTimeout, self, nullptr);
    g_source_attach(self->timeout_, self->context_);
    return 0;
  }

  static gboolean onReady(gint fd, GIOCondition condition, gpointer data) {
    auto* self = static_cast<CurlDriver*>(data);
    if (self->depth_ > 0) return G_SOURCE_CONTINUE;  // a loop run from inside curl's calls
    int events = 0;
    if (condition & (G_IO_IN | G_IO_HUP)) events |= CURL_CSELECT_IN;
    if (condition & G_IO_OUT) events |= CURL_CSELECT_OUT;
    if (condition & G_IO_ERR) events |= CURL_CSELECT_ERR;
    self->act(fd, events);
    return G_SOURCE_CONTINUE;
  }

  static gboolean onTimeout(gpointer data) {
    auto* self = static_cast<CurlDriver*>(data);
    if (self->depth_ > 0) return G_SOURCE_CONTINUE;
    // curl may set a new timer while it acts; this one is spent.
    GSource* spent = self->timeout_;
    self->timeout_ = nullptr;
    self->act(CURL_SOCKET_TIMEOUT, 0);
    g_source_unref(spent);
    return G_SOURCE_REMOVE;
  }

  void act(curl_socket_t socket, int events) {
    int running = 0;
    ++depth_;
    curl_multi_socket_action(multi_, socket, events, &running);
    --depth_;
    settle();
  }

  // What curl could not be told or could not tell while it ran.
  void settle() {
    for (auto& transfer : std::exchange(pendingRemovals_, {})) remove(*transfer);
    std::vector<std::pair<std::shared_ptr<Transfer>, CURLcode>> ended;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      auto it = transfers_.find(message->easy_handle);
      if (it == transfers_.end()) continue;
      ended.emplace_back(it->second, message->data.result);
    }
    for (auto& [transfer, result] : ended) remove(*transfer);

    std::vector<std::shared_ptr<Transfer>> running;
    running.reserve(transfers_.size());
    for (auto& [handle, transfer] : transfers_) running.push_back(transfer);
    for (auto& transfer : running) transfer->deliver();
    for (auto& [transfer, result] : ended) transfer->finish(result);
    for (auto& transfer : std::exchange(pendingAdds_, {})) {
      if (!transfer->cancelled()) add(std::move(transfer));
    }
  }

  GMainContext* context_;
  CURLM* multi_ = nullptr;
  std::unordered_map<curl_socket_t, GSource*> watches_;
  GSource* timeout_ = nullptr;
  std::unordered_map<CURL*, std::shared_ptr<Transfer>> transfers_;
  int depth_ = 0;  // above 0 while curl runs: no curl calls, only queueing
  std::vector<std::shared_ptr<Transfer>> pendingAdds_;
  std::vector<std::shared_ptr<Transfer>> pendingRemovals_;
};

}  // namespace

void URLConnection::Transfer::start() {
  configure();
  driver_ = &CurlDriver::current();
  driver_->add(shared_from_this());
  touch();
  watchIdleness();
}

void URLConnection::Transfer::cancel() {
  delegate_ = nullptr;
  events_.clear();
  if (idleTimer_) idleTimer_->invalidate();
  if (driver_ != nullptr) driver_->remove(*this);
}

// The request's time-out is for silence, not for the whole exchange: a long download that
// keeps coming never times out. curl's own low-speed check cannot say this exactly (it
// measures speed once a second), so a timer of the run loop watches the last byte seen.
void URLConnection::Transfer::watchIdleness() {
  const double timeout = request_.timeoutInterval();
  if (timeout <= 0) return;
  if (idleTimer_) idleTimer_->invalidate();
  const double idle =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - lastActivity_).count();
  std::weak_ptr<Transfer> weak = weak_from_this();
  // Never at once: while curl runs (a loop run from one of its calls) the check must wait.
  idleTimer_ =
      RunLoop::current().scheduledTimer(std::max(0.01, timeout - idle), false, [weak](Timer&) {
        if (auto self = weak.lock()) self->checkIdleness();
      });
}

void URLConnection::Transfer::checkIdleness() {
  if (cancelled() || driver_ == nullptr) return;  // ended, or never started
  const double idle =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - lastActivity_).count();
  if (idle < request_.timeoutInterval() || driver_->busy()) {
    watchIdleness();
    return;
  }
  const std::shared_ptr<Transfer> keep = shared_from_this();
  driver_->remove(*this);
  deliver();
  if (cancelled()) return;
  delegate_->connectionDidFailWithError(
      owner_, urlError(kURLErrorTimedOut, request_.url(), currentParts().host));
}

void URLConnection::Transfer::configure() {
  curl_easy_setopt(easy_, CURLOPT_URL, request_.url().c_str());
  curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
  curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, 64L * 1024);
  // The environment's proxy settings belong to whoever started a set-user-id agent.
  curl_easy_setopt(easy_, CURLOPT_PROXY, "");
  // Each exchange gets a connection, and a TLS session, of its own: one made under another
  // request's trust decision or client identity must never carry this one.
  curl_easy_setopt(easy_, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(easy_, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(easy_, CURLOPT_SSL_SESSIONID_CACHE, 0L);

  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy_, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
  curl_easy_setopt(easy_, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(easy_, CURLOPT_NOPROGRESS, 0L);

  // Trust is decided by our own chain check (see onVerifyChain), which names the host too.
  const std::string bundle = fsPath(kTrustBundle);
  curl_easy_setopt(easy_, CURLOPT_CAINFO, bundle.c_str());
  curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(easy_, CURLOPT_SSL_CTX_FUNCTION, &Transfer::onTLSContext);
  curl_easy_setopt(easy_, CURLOPT_SSL_CTX_DATA, this);

  // The time-out is how long the exchange may stay idle (see watchIdleness); connecting is
  // idle time too, and curl must not give up on it sooner by a limit of its own.
  const double timeout = request_.timeoutInterval();
  if (timeout > 0) {
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min(timeout, 1e6) * 1000));
  }

  curl_slist_free_all(headers_);
  headers_ = nullptr;
  bool expect = false;
  for (const auto& [name, value] : request_.allHTTPHeaderFields()) {
    // Once a credential answers the server, it replaces whatever Authorization was set.
    if (credential_ && sameHeaderField(name, "Authorization")) continue;
    expect |= sameHeaderField(name, "Expect");
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    headers_ = curl_slist_append(headers_, line.c_str());
  }
  if (!expect) headers_ = curl_slist_append(headers_, "Expect:");
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);

  if (credential_) {
    curl_easy_setopt(
        easy_, CURLOPT_HTTPAUTH,
        credentialMethod_ == kAuthenticationMethodHTTPDigest ? CURLAUTH_DIGEST : CURLAUTH_BASIC);
    curl_easy_setopt(easy_, CURLOPT_USERNAME, credential_->user().c_str());
    curl_easy_setopt(easy_, CURLOPT_PASSWORD, credential_->password().c_str());
  }

  const std::string& method = request_.httpMethod();
  if (const auto& stream = request_.httpBodyStream()) {
    stream->seek(0);
    curl_easy_setopt(easy_, CURLOPT_POST, 1L);
    curl_easy_setopt(easy_, CURLOPT_READFUNCTION, &Transfer::onRead);
    curl_easy_setopt(easy_, CURLOPT_READDATA, this);
    curl_easy_setopt(easy_, CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
    curl_easy_setopt(easy_, CURLOPT_SEEKDATA, this);
    const std::int64_t length = expectedLengthOf(request_.allHTTPHeaderFields());
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(length));
  } else if (method == "POST" || !request_.httpBody().empty()) {
    curl_easy_setopt(easy_, CURLOPT_POST, 1L);
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request_.httpBody().size()));
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, request_.httpBody().data());
  }
  if (method == "HEAD") {
    curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
  } else if (method != "GET" && method != "POST") {
    curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

size_t URLConnection::Transfer::onHeader(char* buffer, size_t size, size_t count, void* data) {
  auto* self = static_cast<Transfer*>(data);
  if (self->cancelled()) return 0;
  self->touch();
  self->headerLine(std::string_view(buffer, size * count));
  return size * count;
}

void URLConnection::Transfer::headerLine(std::string_view line) {
  if (line.starts_with("HTTP/")) {
    current_ = {};
    headersComplete_ = false;
    return;
  }
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.empty()) {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    char* url = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &url);
    current_.statusCode = status;
    current_.url = url != nullptr ? url : request_.url();
    current_.expectedContentLength = expectedLengthOf(current_.headers);
    headersComplete_ = status >= 200;  // an interim 1xx answer is not the answer
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  current_.headers.emplace_back(strip(std::string(line.substr(0, colon))),
                                strip(std::string(line.substr(colon + 1))));
}

void URLConnection::Transfer::beginBody() {
  bodyStarted_ = true;
  if (current_.statusCode == 401 && !offeredMethod(current_.headers).empty()) {
    holdingChallenge_ = true;
    return;
  }
  events_.emplace_back(current_);
}

size_t URLConnection::Transfer::onBody(char* buffer, size_t size, size_t count, void* data) {
  auto* self = static_cast<Transfer*>(data);
  const size_t length = size * count;
  if (self->cancelled()) return CURL_WRITEFUNC_ERROR;
  self->touch();
  if (!self->bodyStarted_) self->beginBody();
  if (self->holdingChallenge_) {
    const size_t room = kHeldBodyLimit - std::min(kHeldBodyLimit, self->heldBody_.size());
    self->heldBody_.append(buffer, std::min(room, length));
    return length;
  }
  // Pieces of body come 16 KB at a time over TLS, often a hundred in one turn of curl's: they
  // are gathered into one buffer, which once delivered takes the next turn's pieces, so a
  // download does not make the allocator hand memory back to the system and ask for it again.
  if (auto* last =
          self->events_.empty() ? nullptr : std::get_if<std::string>(&self->events_.back())) {
    last->append(buffer, length);
    return length;
  }
  std::string piece;
  if (!self->spareBuffers_.empty()) {
    piece = std::move(self->spareBuffers_.back());
    self->spareBuffers_.pop_back();
  }
  piece.assign(buffer, length);
  self->events_.emplace_back(std::move(piece));
  return length;
}

size_t URLConnection::Transfer::onRead(char* buffer, size_t size, size_t count, void* data) {
  auto* self = static_cast<Transfer*>(data);
  if (self->cancelled()) return CURL_READFUNC_ABORT;
  const ssize_t n = self->request_.httpBodyStream()->read(buffer, size * count);
  if (n < 0) {
    self->bodyStreamFailed_ = true;
    return CURL_READFUNC_ABORT;
  }
  return static_cast<size_t>(n);
}

int URLConnection::Transfer::onSeek(void* data, curl_off_t offset, int origin) {
  auto* self = static_cast<Transfer*>(data);
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  return self->request_.httpBodyStream()->seek(static_cast<std::uint64_t>(offset))
             ? CURL_SEEKFUNC_OK
             : CURL_SEEKFUNC_FAIL;
}

int URLConnection::Transfer::onProgress(void* data, curl_off_t, curl_off_t, curl_off_t uploadTotal,
                                        curl_off_t uploaded) {
  auto* self = static_cast<Transfer*>(data);
  if (self->cancelled() || self->cancelledInHandshake_) return 1;
  if (uploaded != self->uploaded_) {
    self->touch();
    // A body sent again (after a challenge) starts again from 0.
    const curl_off_t written = uploaded > self->uploaded_ ? uploaded - self->uploaded_ : uploaded;
    self->events_.emplace_back(Sent{written, uploaded, uploadTotal > 0 ? uploadTotal : -1});
    self->uploaded_ = uploaded;
  }
  return 0;
}

CURLcode URLConnection::Transfer::onTLSContext(CURL*, void* context, void* data) {
  auto* ctx = static_cast<SSL_CTX*>(context);
  SSL_CTX_set_ex_data(ctx, transferIndex(), data);
  SSL_CTX_set_cert_verify_callback(ctx, &Transfer::onVerifyChain, data);
  // curl asks OpenSSL to free its record buffers whenever they are empty, which over a long
  // download is after every 16 KB record: freed at the top of the heap, the memory went back
  // to the system and was asked for again each time. One exchange's buffers stay for its
  // whole length instead.
  SSL_CTX_clear_mode(ctx, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_client_cert_cb(ctx, &Transfer::onClientCertificateRequest);
  return CURLE_OK;
}

int URLConnection::Transfer::onVerifyChain(X509_STORE_CTX* store, void* data) {
  auto* self = static_cast<Transfer*>(data);
  bool trusted = X509_verify_cert(store) == 1;
  if (trusted) {
    // The chain must also name the host we asked for.
    const std::string host = self->currentParts().host;
    X509* leaf = X509_STORE_CTX_get0_cert(store);
    int match = X509_check_ip_asc(leaf, host.c_str(), 0);
    if (match == -2) match = X509_check_host(leaf, host.data(), host.size(), 0, nullptr);
    if (match != 1) {
      trusted = false;
      X509_STORE_CTX_set_error(store, X509_V_ERR_HOSTNAME_MISMATCH);
    }
  }
  std::string reason;
  if (!trusted) reason = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
  if (!self->decideTrust(trusted, std::move(reason))) return 0;
  X509_STORE_CTX_set_error(store, X509_V_OK);
  return 1;
}

bool URLConnection::Transfer::decideTrust(bool chainTrusted, std::string reason) {
  const URLParts parts = currentParts();
  ServerTrust trust{
      chainTrusted ? SecTrustResultType::Unspecified : SecTrustResultType::RecoverableTrustFailure,
      reason};
  ProtectionSpace space{parts.host, parts.port, parts.scheme, "", kAuthenticationMethodServerTrust,
                        trust};
  // What happens when the delegate does not vouch for the chain itself.
  const bool byDefault = chainTrusted || URLRequest::allowsAnyHTTPSCertificateForHost(parts.host);
  bool accepted = byDefault;
  if (!cancelled() && delegate_->connectionCanAuthenticateAgainstProtectionSpace(owner_, space) &&
      !cancelled()) {
    AuthenticationChallenge challenge(space, 0, std::nullopt);
    delegate_->connectionDidReceiveAuthenticationChallenge(owner_, challenge);
    switch (challenge.answer()) {
      case AuthenticationChallenge::Answer::UseCredential:
        accepted = challenge.credential()->kind() == URLCredential::Kind::ServerTrust || byDefault;
        break;
      case AuthenticationChallenge::Answer::Cancel:
        cancelledInHandshake_ = true;
        accepted = false;
        break;
      default:
        break;
    }
  }
  if (cancelled()) return false;
  if (!accepted && !cancelledInHandshake_) {
    trustRejected_ = true;
    trustFailure_ = std::move(reason);
  }
  return accepted;
}

int URLConnection::Transfer::onClientCertificateRequest(SSL* ssl, X509** certificate,
                                                        EVP_PKEY** key) {
  auto* self = static_cast<Transfer*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), transferIndex()));
  return self != nullptr ? self->provideIdentity(certificate, key) : 0;
}

int URLConnection::Transfer::provideIdentity(X509** certificate, EVP_PKEY** key) {
  identityAsked_ = true;
  const URLParts parts = currentParts();
  ProtectionSpace space{
      parts.host,  parts.port, parts.scheme, "", kAuthenticationMethodClientCertificate,
      std::nullopt};
  if (cancelled() || !delegate_->connectionCanAuthenticateAgainstProtectionSpace(owner_, space) ||
      cancelled())
    return 0;
  AuthenticationChallenge challenge(space, 0, std::nullopt);
  delegate_->connectionDidReceiveAuthenticationChallenge(owner_, challenge);
  if (challenge.answer() == AuthenticationChallenge::Answer::Cancel) {
    cancelledInHandshake_ = true;
    return 0;
  }
  if (challenge.answer() != AuthenticationChallenge::Answer::UseCredential ||
      challenge.credential()->kind() != URLCredential::Kind::ClientIdentity)
    return 0;  // no identity: the server decides whether it talks to us without one
  identitySent_ = loadIdentity(*challenge.credential(), certificate, key);
  return identitySent_ ? 1 : 0;
}

void URLConnection::Transfer::deliver() {
  const std::shared_ptr<Transfer> keep = shared_from_this();
  while (!events_.empty() && !cancelled()) {
    Event event = std::move(events_.front());
    events_.pop_front();
    if (auto* response = std::get_if<HTTPURLResponse>(&event)) {
      delegate_->connectionDidReceiveResponse(owner_, *response);
    } else if (auto* bytes = std::get_if<std::string>(&event)) {
      delegate_->connectionDidReceiveData(owner_, *bytes);
      if (spareBuffers_.size() < kSpareBuffers) spareBuffers_.push_back(std::move(*bytes));
    } else {
      const Sent& sent = std::get<Sent>(event);
      delegate_->connectionDidSendBodyData(owner_, sent.written, sent.total, sent.expected);
    }
  }
}

void URLConnection::Transfer::finish(CURLcode result) {
  const std::shared_ptr<Transfer> keep = shared_from_this();
  if (idleTimer_) idleTimer_->invalidate();
  deliver();
  if (cancelled()) return;
  if (result != CURLE_OK) {
    delegate_->connectionDidFailWithError(owner_, errorFor(result));
    return;
  }
  if (!bodyStarted_ && headersComplete_) beginBody();  // an answer without a body
  if (holdingChallenge_) {
    if (answerHTTPChallenge()) return;
    events_.emplace_back(current_);
    if (!heldBody_.empty()) events_.emplace_back(std::move(heldBody_));
  }
  deliver();
  if (!cancelled()) delegate_->connectionDidFinishLoading(owner_);
}

// A 401 that offers a method: true when the delegate's answer took the exchange elsewhere
// (sent again with a credential, or cancelled), false when the 401 is the answer.
bool URLConnection::Transfer::answerHTTPChallenge() {
  const URLParts parts = currentParts();
  const std::string method = offeredMethod(current_.headers);
  ProtectionSpace space{parts.host, parts.port,  parts.scheme, realmOf(current_.headers),
                        method,     std::nullopt};
  if (!delegate_->connectionCanAuthenticateAgainstProtectionSpace(owner_, space))
    return cancelled();
  if (cancelled()) return true;
  AuthenticationChallenge challenge(space, failedChallenges_, credential_);
  delegate_->connectionDidReceiveAuthenticationChallenge(owner_, challenge);
  if (cancelled()) return true;
  switch (challenge.answer()) {
    case AuthenticationChallenge::Answer::Cancel:
      delegate_->connectionDidFailWithError(
          owner_, urlError(kURLErrorUserCancelledAuthentication, current_.url, parts.host));
      return true;
    case AuthenticationChallenge::Answer::UseCredential:
      if (challenge.credential()->kind() != URLCredential::Kind::Password ||
          (method != kAuthenticationMethodHTTPBasic && method != kAuthenticationMethodHTTPDigest))
        return false;
      // Ask again, this time with the credential, on a handle of its own: the old one
      // remembers the server's first challenge and would answer the next 401 by itself,
      // sending the same refused credential a second time.
      curl_easy_cleanup(easy_);
      easy_ = curl_easy_init();
      ++failedChallenges_;
      credential_ = challenge.credential();
      credentialMethod_ = method;
      current_ = {};
      headersComplete_ = bodyStarted_ = holdingChallenge_ = false;
      heldBody_.clear();
      start();
      return true;
    default:
      return false;
  }
}

Error URLConnection::Transfer::errorFor(CURLcode result) const {
  const URLParts parts = currentParts();
  std::string detail = errorBuffer_[0] != '\0' ? errorBuffer_ : curl_easy_strerror(result);
  long code = kURLErrorUnknown;
  if (cancelledInHandshake_) {
    code = kURLErrorCancelled;
  } else if (trustRejected_ || result == CURLE_PEER_FAILED_VERIFICATION) {
    code = kURLErrorServerCertificateUntrusted;
    if (!trustFailure_.empty()) detail = trustFailure_;
  } else if (bodyStreamFailed_) {
    code = kURLErrorRequestBodyStreamExhausted;
  } else if (identityAsked_ && !identitySent_ &&
             (result == CURLE_SSL_CONNECT_ERROR || result == CURLE_RECV_ERROR ||
              result == CURLE_SEND_ERROR || result == CURLE_GOT_NOTHING)) {
    code = kURLErrorClientCertificateRequired;
  } else {
    switch (result) {
      case CURLE_OPERATION_TIMEDOUT:
        code = kURLErrorTimedOut;
        break;
      case CURLE_COULDNT_RESOLVE_HOST:
        code = kURLErrorCannotFindHost;
        break;
      case CURLE_COULDNT_CONNECT:
        code = kURLErrorCannotConnectToHost;
        break;
      case CURLE_URL_MALFORMAT:
        code = kURLErrorBadURL;
        break;
      case CURLE_UNSUPPORTED_PROTOCOL:
        // For an http(s) URL this is the server speaking something that is not HTTP.
        code = parts.scheme == "http" || parts.scheme == "https" ? kURLErrorBadServerResponse
                                                                 : kURLErrorUnsupportedURL;
        break;
      case CURLE_SSL_CONNECT_ERROR:
      case CURLE_SSL_CERTPROBLEM:
      case CURLE_SSL_CIPHER:
      case CURLE_SSL_CACERT_BADFILE:
      case CURLE_SSL_ENGINE_INITFAILED:
        code = kURLErrorSecureConnectionFailed;
        break;
      case CURLE_PARTIAL_FILE:
      case CURLE_RECV_ERROR:
      case CURLE_SEND_ERROR:
      case CURLE_GOT_NOTHING:
        code = kURLErrorNetworkConnectionLost;
        break;
      case CURLE_TOO_MANY_REDIRECTS:
        code = kURLErrorHTTPTooManyRedirects;
        break;
      case CURLE_WEIRD_SERVER_REPLY:
      case CURLE_HTTP2:
      case CURLE_HTTP2_STREAM:
      case CURLE_OUT_OF_MEMORY:
        code = kURLErrorBadServerResponse;
        break;
      default:
        break;
    }
  }
  return urlError(code, request_.url(), parts.host, detail);
}

URLConnection::URLConnection(const URLRequest& request, URLConnectionDelegate* delegate)
    : transfer_(std::make_shared<Transfer>(*this, request, delegate)) {
  transfer_->start();
}

URLConnection::~URLConnection() { transfer_->cancel(); }

void URLConnection::cancel() { transfer_->cancel(); }

}  // namespace vesk
