// QRVURLSession over libcurl. All transfers of the process run on one worker thread driving a
// curl multi handle; a session only decides what transfers share. An ephemeral session shares
// nothing (no cookies, no DNS or TLS cache, no connection reuse); a persistent one shares all of
// it through a curl share handle. Only the worker thread touches curl handles, so the share
// handle needs no locks.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <pthread.h>

#include "quorvix/QRVURLSession.h"
#include "quorvix/TLSConfiguration.h"
#include "utils/Logging.h"
#include "utils/QRVURL.h"
#include "utils/Strings.h"

namespace quorvix {
namespace {

struct EasyDeleter {
  void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct SlistDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct ShareDeleter {
  void operator()(CURLSH* s) const { curl_share_cleanup(s); }
};
struct BioDeleter {
  void operator()(BIO* b) const { BIO_free(b); }
};

QRVError transportError(long code, std::string message) {
  return QRVError(QRVURLSession::kErrorDomain, code, std::move(message));
}

// A header that would let a value break out of its line is refused before anything is sent.
std::optional<QRVError> checkHeader(const std::string& name, const std::string& value) {
  auto bad = [](unsigned char c) { return c == '\r' || c == '\n' || c == '\0'; };
  if (name.empty() || std::any_of(name.begin(), name.end(), [](unsigned char c) {
        return c <= 0x20 || c >= 0x7f || c == ':';
      }))
    return transportError(CURLE_BAD_FUNCTION_ARGUMENT,
                          "Invalid header field name \"" + name + "\"");
  if (std::any_of(value.begin(), value.end(), bad))
    return transportError(CURLE_BAD_FUNCTION_ARGUMENT,
                          "Invalid value of header field \"" + name + "\": line break");
  return std::nullopt;
}

struct Transfer {
  QRVHTTPRequest request;
  std::function<void(QRVHTTPResult)> completion;
  std::shared_ptr<CURLSH> share;  // absent for ephemeral sessions
  QRVURLSessionOptions options;
  std::unique_ptr<CURL, EasyDeleter> easy;
  std::unique_ptr<curl_slist, SlistDeleter> headerList;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  QRVHTTPResult result;
  bool tooLarge = false;
  bool stalled = false;
  int redirects = 0;
  // The configured roots, trusted beside the system store.
  std::vector<std::string> trustedCertificates;
  bool verifyPeer = true;
  std::chrono::steady_clock::time_point lastMoved;
  curl_off_t lastDown = 0, lastUp = 0;

  void finish() {
    auto done = std::move(completion);
    completion = nullptr;
    if (done)
      done(std::move(result));
  }
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  size_t n = size * count;
  if (t->result.body.size() + n > QRVURLSession::kMaxBodyBytes) {
    t->tooLarge = true;
    return 0;  // makes curl fail the transfer with a write error
  }
  t->result.body.append(data, n);
  return n;
}

int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  auto* t = static_cast<Transfer*>(user);
  const auto now = std::chrono::steady_clock::now();
  if (down != t->lastDown || up != t->lastUp) {
    t->lastDown = down;
    t->lastUp = up;
    t->lastMoved = now;
    return 0;
  }
  t->stalled = now - t->lastMoved >= t->options.stallTimeout;
  return t->stalled ? 1 : 0;  // non-zero aborts the transfer
}

// Runs before each TLS handshake of the transfer, on the context curl set up with the system
// store.
CURLcode onTLSContext(CURL*, void* context, void* user) {
  auto* t = static_cast<Transfer*>(user);
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(context));
  for (const auto& pem : t->trustedCertificates) {
    std::unique_ptr<BIO, BioDeleter> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    int added = 0;
    // One text may hold several certificates.
    while (X509* cert = bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr) {
      X509_STORE_add_cert(store, cert);
      X509_free(cert);
      ++added;
    }
    ERR_clear_error();
    if (added == 0)
      return CURLE_SSL_CACERT_BADFILE;
  }
  if (!t->verifyPeer)
    return CURLE_OK;
  // curl accepts a certificate that names the host only in its common name when it has no
  // subjectAltName; modern clients refuse it. OpenSSL checks the name here during the
  // handshake, without the common name, before curl's own check runs.
  auto url = QRVURL::parse(t->request.url);
  if (!url || url->host().empty())
    return CURLE_URL_MALFORMAT;
  const std::string host = url->host();
  X509_VERIFY_PARAM* param = SSL_CTX_get0_param(static_cast<SSL_CTX*>(context));
  X509_VERIFY_PARAM_set_hostflags(
      param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1 &&
      X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size()) != 1)
    return CURLE_PEER_FAILED_VERIFICATION;
  ERR_clear_error();
  return CURLE_OK;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  size_t n = size * count;
  std::string_view line(data, n);
  if (line.starts_with("HTTP/")) {
    // A new status line (after a redirect or an interim answer) starts a new header block.
    t->result.response.emplace();
    return n;
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos || !t->result.response)
    return n;
  std::string name = asciiLower(line.substr(0, colon));
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
    value.remove_prefix(1);
  while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
    value.remove_suffix(1);
  auto& slot = t->result.response->headers[name];
  if (!slot.empty())
    slot += ", ";
  slot += value;
  return n;
}

constexpr int kMaxRedirects = 10;

class CurlWorker {
 public:
  static CurlWorker& instance() {
    static CurlWorker worker;
    return worker;
  }

  void add(std::unique_ptr<Transfer> t) {
    {
      std::lock_guard lock(mutex_);
      incoming_.push_back(std::move(t));
    }
    curl_multi_wakeup(multi_);
  }

  ~CurlWorker() {
    stop_ = true;
    curl_multi_wakeup(multi_);
    thread_.join();
    curl_multi_cleanup(multi_);
  }

 private:
  CurlWorker() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "quorvix-http");
      run();
    });
  }

  void run() {
    std::vector<std::unique_ptr<Transfer>> active;
    while (!stop_) {
      std::deque<std::unique_ptr<Transfer>> fresh;
      {
        std::lock_guard lock(mutex_);
        fresh.swap(incoming_);
      }
      for (auto& t : fresh) {
        if (configure(*t)) {
          curl_multi_add_handle(multi_, t->easy.get());
          active.push_back(std::move(t));
        } else {
          t->finish();
        }
      }
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
        if (msg->msg != CURLMSG_DONE)
          continue;
        auto it = std::find_if(active.begin(), active.end(),
                               [&](const auto& t) { return t->easy.get() == msg->easy_handle; });
        if (it == active.end())
          continue;
        std::unique_ptr<Transfer> t = std::move(*it);
        active.erase(it);
        const CURLcode code = msg->data.result;  // gone once the handle is removed
        curl_multi_remove_handle(multi_, t->easy.get());
        complete(*t, code);
        if (followRedirect(*t)) {
          curl_multi_add_handle(multi_, t->easy.get());
          active.push_back(std::move(t));
          continue;
        }
        t->finish();
      }
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
    auto abandon = [](Transfer& t) {
      t.result = {};
      t.result.error = transportError(CURLE_ABORTED_BY_CALLBACK, "The request was cancelled");
      t.finish();
    };
    for (auto& t : active) {
      curl_multi_remove_handle(multi_, t->easy.get());
      abandon(*t);
    }
    std::lock_guard lock(mutex_);
    for (auto& t : incoming_)
      abandon(*t);
  }

  static bool configure(Transfer& t) {
    const QRVHTTPRequest& r = t.request;
    for (const auto& [name, value] : r.headers) {
      if (auto error = checkHeader(name, value)) {
        t.result.error = std::move(error);
        return false;
      }
    }
    t.easy.reset(curl_easy_init());
    if (!t.easy) {
      t.result.error = transportError(CURLE_OUT_OF_MEMORY, "Could not create an HTTP transfer");
      return false;
    }
    CURL* h = t.easy.get();
    curl_easy_setopt(h, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(QRVURLSession::kMaxBodyBytes));
    curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, &t);
    if (r.timeout.count() > 0)
      curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(r.timeout.count()));
    curl_easy_setopt(
        h, CURLOPT_CONNECTTIMEOUT_MS,
        static_cast<long>(std::max<std::int64_t>(1, t.options.connectTimeout.count())));
    // A server that accepts and then says nothing would hold the request, and the registration
    // loop waiting for its answer, forever. curl's own low-speed limit averages over several
    // seconds, so a stall is measured here instead.
    t.lastMoved = std::chrono::steady_clock::now();
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, &t);
    // Finds a peer that vanished without closing while the request waits for its answer.
    curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, 30L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, 15L);
    const TLSConfiguration tls = tlsConfiguration();
    t.verifyPeer = tls.verifyCertificates;
    if (!tls.verifyCertificates) {
      curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
      curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
    } else if (!tls.additionalTrustedCertificates.empty()) {
      t.trustedCertificates = tls.additionalTrustedCertificates;
      // A store that curl caches is shared with later transfers, which may run under another
      // configuration: this transfer builds one of its own.
      curl_easy_setopt(h, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    }
    curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, onTLSContext);
    curl_easy_setopt(h, CURLOPT_SSL_CTX_DATA, &t);
    if (t.share) {
      curl_easy_setopt(h, CURLOPT_SHARE, t.share.get());
      curl_easy_setopt(h, CURLOPT_COOKIEFILE, "");
    } else {
      curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
      curl_easy_setopt(h, CURLOPT_DNS_CACHE_TIMEOUT, 0L);
    }

    curl_slist* list = nullptr;
    auto append = [&list](const std::string& line) {
      curl_slist* next = curl_slist_append(list, line.c_str());
      if (next)
        list = next;
    };
    for (const auto& [name, value] : r.headers)
      append(value.empty() ? name + ";" : name + ": " + value);
    // Bodies go out at once; waiting for "100 Continue" only adds a round trip.
    append("Expect:");
    t.headerList.reset(list);
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, list);

    if (r.method == "GET" && !r.body) {
      curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    } else if (r.method == "POST") {
      curl_easy_setopt(h, CURLOPT_POST, 1L);
    } else {
      curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    }
    if (r.body) {
      curl_easy_setopt(h, CURLOPT_POSTFIELDS, r.body->data());
      curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body->size()));
    } else if (r.method == "POST") {
      curl_easy_setopt(h, CURLOPT_POSTFIELDS, "");
      curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
    }
    return true;
  }

  // Redirects are followed here rather than by curl, and only within the request's origin: the
  // headers carry the license and the session token, which must not reach another host, nor
  // travel in clear after a redirect from https to http.
  static bool followRedirect(Transfer& t) {
    if (t.result.error || !t.result.response)
      return false;
    const long status = t.result.response->statusCode;
    if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308)
      return false;
    char* target = nullptr;
    curl_easy_getinfo(t.easy.get(), CURLINFO_REDIRECT_URL, &target);
    if (!target)
      return false;  // no Location: an answer like any other
    const std::string location = target;
    const std::string from = origin(t.request.url);
    auto refuse = [&t](std::string message) {
      t.result = {};
      t.result.error = transportError(CURLE_TOO_MANY_REDIRECTS, std::move(message));
      return false;
    };
    if (from.empty() || origin(location) != from)
      return refuse("Refused a redirect that leaves " + from);
    if (++t.redirects > kMaxRedirects)
      return refuse("Too many redirects");

    CURL* h = t.easy.get();
    t.request.url = location;
    curl_easy_setopt(h, CURLOPT_URL, t.request.url.c_str());
    // As browsers do: 303 turns every method but HEAD into GET, 301 and 302 only POST.
    const std::string& method = t.request.method;
    if (status == 303 ? method != "HEAD" : (status == 301 || status == 302) && method == "POST") {
      t.request.method = "GET";
      t.request.body.reset();
      curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, nullptr);
      curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    }
    t.result = {};
    t.tooLarge = false;
    t.stalled = false;
    t.errorBuffer[0] = '\0';
    t.lastMoved = std::chrono::steady_clock::now();
    t.lastDown = t.lastUp = 0;
    return true;
  }

  // "scheme://host:port" in lower case with the port spelled out; empty for no usable URL.
  static std::string origin(const std::string& url) {
    auto parsed = QRVURL::parse(url);
    if (!parsed || !parsed->scheme() || parsed->host().empty())
      return {};
    const std::string scheme = asciiLower(*parsed->scheme());
    const unsigned port = parsed->port().value_or(scheme == "https" ? 443 : 80);
    return scheme + "://" + asciiLower(parsed->host()) + ":" + std::to_string(port);
  }

  static void complete(Transfer& t, CURLcode code) {
    if (code != CURLE_OK) {
      std::string message;
      if (t.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
        message =
            "The response body exceeds " + std::to_string(QRVURLSession::kMaxBodyBytes) + " bytes";
      } else if (t.stalled) {
        code = CURLE_OPERATION_TIMEDOUT;
        message = "No data moved for " + std::to_string(t.options.stallTimeout.count()) +
                  " ms: the request was abandoned";
      } else
        message = t.errorBuffer[0] ? t.errorBuffer : curl_easy_strerror(code);
      t.result.error = transportError(code, std::move(message));
      t.result.body.clear();
    }
    if (t.result.response) {
      long status = 0;
      curl_easy_getinfo(t.easy.get(), CURLINFO_RESPONSE_CODE, &status);
      t.result.response->statusCode = status;
      char* url = nullptr;
      curl_easy_getinfo(t.easy.get(), CURLINFO_EFFECTIVE_URL, &url);
      if (url)
        t.result.response->url = url;
    }
  }

  std::atomic<bool> stop_{false};
  CURLM* multi_ = nullptr;
  std::mutex mutex_;
  std::deque<std::unique_ptr<Transfer>> incoming_;
  std::thread thread_;
};

class CurlURLSession final : public QRVURLSession {
 public:
  CurlURLSession(bool persistent, QRVURLSessionOptions options) : options_(options) {
    if (!persistent)
      return;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    share_.reset(curl_share_init(), ShareDeleter{});
    // Connections are kept by the worker's multi handle for every transfer that allows reuse.
    for (auto data : {CURL_LOCK_DATA_COOKIE, CURL_LOCK_DATA_DNS, CURL_LOCK_DATA_SSL_SESSION})
      curl_share_setopt(share_.get(), CURLSHOPT_SHARE, data);
  }

  void dataTask(QRVHTTPRequest request, std::function<void(QRVHTTPResult)> completion) override {
    auto t = std::make_unique<Transfer>();
    t->request = std::move(request);
    t->completion = std::move(completion);
    t->share = share_;
    t->options = options_;
    CurlWorker::instance().add(std::move(t));
  }

 private:
  const QRVURLSessionOptions options_;
  std::shared_ptr<CURLSH> share_;
};

}  // namespace

std::shared_ptr<QRVURLSession> QRVURLSession::makeEphemeral(QRVURLSessionOptions options) {
  return std::make_shared<CurlURLSession>(false, options);
}

std::shared_ptr<QRVURLSession> QRVURLSession::makePersistent(QRVURLSessionOptions options) {
  return std::make_shared<CurlURLSession>(true, options);
}

}  // namespace quorvix
