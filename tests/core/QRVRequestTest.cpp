// QRVRequest against a real HTTP server on loopback, with the main queue under the test's control.
#include "core/QRVRequest.h"

#include "quorvix/QRVBundle.h"
#include "quorvix/TLSConfiguration.h"
#include "web-socket/WSHandshake.h"

#include <gtest/gtest.h>

#include "../support/HttpTestServer.h"
#include "../support/ManualExecutor.h"
#include "../support/ScopedURLSession.h"
#include "../support/TestCertificates.h"
#include "../support/TestUtil.h"

namespace quorvix {
namespace {

using test::HttpTestServer;
using test::RecordedRequest;
using test::TestResponse;

using Recorder = test::
    CallRecorder<std::optional<QRVError>, std::optional<Value>, std::optional<QRVHTTPResponse>>;

class QRVRequestTest : public ::testing::Test {
 protected:
  // Sends one request and waits (bounded) for its completion; then checks it stays at one call.
  Recorder send(const std::string& url, QRVRequestOptions options = {}) {
    Recorder rec;
    QRVRequest::request(QRVURL::parse(url), options, rec.once());
    EXPECT_EQ(rec.calls(), 0) << "completion must never run inline";
    EXPECT_TRUE(main_->runUntil([&] { return rec.called(); }));
    main_->advanceSeconds(1);
    EXPECT_EQ(rec.calls(), 1);
    return rec;
  }

  test::ScopedManualMainQueue main_;
};

TEST_F(QRVRequestTest, ClassifiesAnswers) {
  struct Case {
    const char* name;
    TestResponse answer;
    std::optional<long> errorCode;  // Quorvix error code, if any
    const char* errorMessage;
    bool hasValue;
  };
  const Case cases[] = {
      {"204 with a body is success without a value", {204, R"({"x":1})"}, {}, nullptr, false},
      {"200 with JSON", {200, R"({"x":1})"}, {}, nullptr, true},
      {"201 with an array", {201, "[1,2]"}, {}, nullptr, true},
      {"404 without message", {404, R"({"error":"nope"})"}, 404, "Request failed", true},
      {"500 with message", {500, R"({"message":"Database down"})"}, 500, "Database down", true},
      {"409 with a non-text message", {409, R"({"message":7})"}, 409, "Request failed", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HttpTestServer server([&](const RecordedRequest&) { return c.answer; });
    Recorder rec = send(server.url("/api"));
    const auto& [error, json, response] = rec.args();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->statusCode, c.answer.status);
    EXPECT_EQ(json.has_value(), c.hasValue);
    if (c.errorCode) {
      ASSERT_TRUE(error.has_value());
      EXPECT_EQ(error->domain(), "Quorvix");
      EXPECT_EQ(error->code(), *c.errorCode);
      EXPECT_EQ(error->message(), c.errorMessage);
    } else {
      EXPECT_FALSE(error.has_value()) << *error;
    }
  }
}

TEST_F(QRVRequestTest, BodiesThatAreNotJsonAreParseErrors) {
  // An empty body is a parse error for every status but 204, success statuses included.
  for (auto answer : {TestResponse{200, ""},
                      {200, "<html>hi</html>"},
                      {500, "oops"},
                      {200, "\"just a string\""},
                      {200, "{\"a\":1} trailing"}}) {
    SCOPED_TRACE(answer.body);
    int status = answer.status;
    HttpTestServer server([answer](const RecordedRequest&) { return answer; });
    Recorder rec = send(server.url());
    const auto& [error, json, response] = rec.args();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), "JSON");
    EXPECT_FALSE(json.has_value());
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->statusCode, status);
  }
}

TEST_F(QRVRequestTest, SendsMethodHeadersAndCompactJsonBody) {
  HttpTestServer server;
  QRVRequestOptions options;
  options.method = "PUT";
  options.headers = {{"X-QuorviLicense", "lic"}, {"content-type", "text/plain"}};
  options.body =
      Value(Value::Map{{"name", "Ann"}, {"n", 2}, {"list", Value::Array{true, nullptr}}});
  send(server.url("/api/1/devices/D1"), options);

  // GET and DELETE carry the JSON content type too.
  QRVRequestOptions del;
  del.method = "DELETE";
  send(server.url("/x"), del);
  send(server.url("/y"));

  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 3u);
  EXPECT_EQ(reqs[0].method, "PUT");
  EXPECT_EQ(reqs[0].target, "/api/1/devices/D1");
  EXPECT_EQ(reqs[0].body, R"({"list":[true,null],"n":2,"name":"Ann"})");
  EXPECT_EQ(reqs[0].header("x-quorvilicense"), "lic");
  // The host's own Content-Type never competes with the library's.
  EXPECT_EQ(reqs[0].headerCount("content-type"), 1u);
  EXPECT_EQ(reqs[0].header("content-type"), "application/json; charset=utf-8");
  EXPECT_FALSE(reqs[0].header("expect"));
  EXPECT_EQ(reqs[1].method, "DELETE");
  EXPECT_EQ(reqs[1].body, "");
  EXPECT_EQ(reqs[2].method, "GET");
  for (const auto& r : reqs)
    EXPECT_EQ(r.header("content-type"), "application/json; charset=utf-8");
}

TEST_F(QRVRequestTest, UnserialisableBodySendsNothing) {
  HttpTestServer server;
  for (Value body : {Value(Value::Map{{"blob", Value::Bytes{1, 2}}}),
                     Value(Value::Array{std::numeric_limits<double>::quiet_NaN()}),
                     Value(Value::Map{{"when", Date{5}}})}) {
    QRVRequestOptions options;
    options.method = "POST";
    options.body = body;
    Recorder rec = send(server.url(), options);
    const auto& [error, json, response] = rec.args();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), "JSON");
    EXPECT_FALSE(json.has_value());
    EXPECT_FALSE(response.has_value());
  }
  EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(QRVRequestTest, TransportFailuresReachTheCompletionOnce) {
  // Nothing listening.
  Recorder refused = send("http://127.0.0.1:" + std::to_string(HttpTestServer::closedPort()) + "/");
  ASSERT_TRUE(refused.arg<0>().has_value());
  EXPECT_EQ(refused.arg<0>()->domain(), QRVURLSession::kErrorDomain);
  EXPECT_FALSE(refused.arg<2>().has_value());

  // The server hangs up without answering.
  HttpTestServer server([](const RecordedRequest&) { return TestResponse{.hangUp = true}; });
  Recorder hung = send(server.url());
  ASSERT_TRUE(hung.arg<0>().has_value());
  EXPECT_EQ(hung.arg<0>()->domain(), QRVURLSession::kErrorDomain);

  // A header value that would start a new header line is refused before anything is sent.
  HttpTestServer quiet;
  QRVRequestOptions options;
  options.headers = {{"X-Quorvi", "a\r\nX-Injected: 1"}};
  Recorder injected = send(quiet.url(), options);
  ASSERT_TRUE(injected.arg<0>().has_value());
  EXPECT_EQ(injected.arg<0>()->domain(), QRVURLSession::kErrorDomain);
  EXPECT_TRUE(quiet.requests().empty());

  // No URL at all.
  Recorder noUrl = send("not a url");
  ASSERT_TRUE(noUrl.arg<0>().has_value());
}

TEST_F(QRVRequestTest, AServerThatNeverAnswersFailsTheRequestOnceNothingMoves) {
  HttpTestServer server([](const RecordedRequest&) { return TestResponse{.neverAnswer = true}; });
  test::ScopedURLSession session(
      QRVURLSession::makeEphemeral({.stallTimeout = std::chrono::milliseconds(300)}));
  Recorder rec = send(server.url());
  ASSERT_TRUE(rec.arg<0>().has_value());
  EXPECT_EQ(rec.arg<0>()->domain(), QRVURLSession::kErrorDomain);
  EXPECT_FALSE(rec.arg<2>().has_value());
  EXPECT_EQ(server.requests().size(), 1u) << "the request went out, and no answer came";
}

TEST_F(QRVRequestTest, RedirectsAreFollowedOnlyWithinTheOrigin) {
  HttpTestServer elsewhere;
  HttpTestServer server([&](const RecordedRequest& r) -> TestResponse {
    if (r.target == "/moved")
      return {307, "{}", {{"Location", "/here"}}};
    if (r.target == "/other-port")
      return {302, "{}", {{"Location", elsewhere.url("/take")}}};
    if (r.target == "/other-host")
      return {308, "{}", {{"Location", server.url("/here", "localhost")}}};
    return {200, R"({"at":"here"})"};
  });
  QRVRequestOptions options;
  options.method = "PUT";
  options.headers = {{"X-QuorviLicense", "lic"}};
  options.body = Value(Value::Map{{"a", 1}});

  Recorder followed = send(server.url("/moved"), options);
  EXPECT_FALSE(followed.arg<0>().has_value());
  EXPECT_EQ(followed.arg<1>(), Value(Value::Map{{"at", "here"}}));
  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[1].target, "/here");
  EXPECT_EQ(reqs[1].method, "PUT");
  EXPECT_EQ(reqs[1].body, R"({"a":1})");
  EXPECT_EQ(reqs[1].header("x-quorvilicense"), "lic");

  for (const char* path : {"/other-port", "/other-host"}) {
    SCOPED_TRACE(path);
    Recorder refused = send(server.url(path), options);
    ASSERT_TRUE(refused.arg<0>().has_value());
    EXPECT_EQ(refused.arg<0>()->domain(), QRVURLSession::kErrorDomain);
    EXPECT_NE(refused.arg<0>()->message().find("redirect"), std::string::npos)
        << refused.arg<0>()->message();
    EXPECT_FALSE(refused.arg<1>().has_value());
  }
  // Both refusals have completed, so anything sent on would have arrived by now.
  EXPECT_EQ(server.requests().size(), 4u) << "nothing came back to the same port either";
  EXPECT_TRUE(elsewhere.requests().empty());
  EXPECT_EQ(elsewhere.connectionCount(), 0);
}

TEST_F(QRVRequestTest, RequestsFollowTheTLSConfiguration) {
  test::TestCertificates certs;
  ASSERT_TRUE(certs.ok);
  HttpTestServer server(nullptr, test::TlsIdentity{certs.localhostPem, certs.localhostKey});
  HttpTestServer wrongName(nullptr, test::TlsIdentity{certs.otherHostPem, certs.otherHostKey});
  HttpTestServer selfSigned(nullptr, test::TlsIdentity{certs.selfSignedPem, certs.selfSignedKey});
  struct Restore {
    ~Restore() { setTLSConfiguration({}); }
  } restore;
  auto fails = [&](const std::string& url) {
    Recorder rec = send(url);
    return rec.arg<0>().has_value() && rec.arg<0>()->domain() == QRVURLSession::kErrorDomain;
  };

  EXPECT_TRUE(fails(server.url())) << "the test root is not in the system store";
  setTLSConfiguration({{certs.caPem}});
  Recorder trusted = send(server.url());
  EXPECT_FALSE(trusted.arg<0>().has_value()) << *trusted.arg<0>();
  EXPECT_TRUE(fails(wrongName.url())) << "a trusted root does not excuse the wrong name";
  EXPECT_TRUE(fails(selfSigned.url("/", "localhost")));
  setTLSConfiguration({});
  EXPECT_TRUE(fails(server.url())) << "the root is gone with the configuration";

  setTLSConfiguration({.verifyCertificates = false});
  Recorder unverified = send(selfSigned.url("/", "localhost"));
  EXPECT_FALSE(unverified.arg<0>().has_value()) << *unverified.arg<0>();

  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(wrongName.requests().empty());
  EXPECT_EQ(selfSigned.requests().size(), 1u);
}

TEST_F(QRVRequestTest, ACertificateThatNamesTheHostOnlyInItsCommonNameIsRefused) {
  test::TestCertificates certs;
  ASSERT_TRUE(certs.ok);
  HttpTestServer commonNameOnly(
      nullptr, test::TlsIdentity{certs.commonNameOnlyPem, certs.commonNameOnlyKey});
  HttpTestServer withAltName(nullptr, test::TlsIdentity{certs.localhostPem, certs.localhostKey});
  struct Restore {
    ~Restore() { setTLSConfiguration({}); }
  } restore;
  setTLSConfiguration({{certs.caPem}});

  Recorder refused = send(commonNameOnly.url("/", "localhost"));
  ASSERT_TRUE(refused.arg<0>().has_value());
  EXPECT_EQ(refused.arg<0>()->domain(), QRVURLSession::kErrorDomain);
  Recorder accepted = send(withAltName.url("/", "localhost"));
  EXPECT_FALSE(accepted.arg<0>().has_value()) << *accepted.arg<0>();
  EXPECT_TRUE(commonNameOnly.requests().empty());
  EXPECT_EQ(withAltName.requests().size(), 1u);
}

TEST_F(QRVRequestTest, HugeBodiesAreBoundedNotBuffered) {
  std::string big = "[\"" + std::string(QRVURLSession::kMaxBodyBytes, 'a') + "\"]";
  HttpTestServer server([&](const RecordedRequest&) { return TestResponse{200, big}; });
  Recorder rec = send(server.url());
  ASSERT_TRUE(rec.arg<0>().has_value());
  EXPECT_EQ(rec.arg<0>()->domain(), QRVURLSession::kErrorDomain);
  EXPECT_FALSE(rec.arg<1>().has_value());

  // Deeply nested JSON is refused by the parser's depth limit rather than overflowing the stack.
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  server.setHandler([&](const RecordedRequest&) { return TestResponse{200, deep}; });
  Recorder nested = send(server.url());
  ASSERT_TRUE(nested.arg<0>().has_value());
  EXPECT_EQ(nested.arg<0>()->domain(), "JSON");
}

TEST_F(QRVRequestTest, EachRequestRunsInASessionOfItsOwnUnlessTheHostSetOne) {
  HttpTestServer server([](const RecordedRequest& r) {
    TestResponse answer;
    answer.headers = {{"Set-Cookie", "visit=1; Path=/"}};
    answer.body = r.header("cookie") ? R"({"cookie":true})" : R"({"cookie":false})";
    return answer;
  });
  send(server.url());
  send(server.url());
  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_FALSE(reqs[1].header("cookie")) << "no cookie shared between ephemeral sessions";
  EXPECT_EQ(server.connectionCount(), 2) << "no connection shared between ephemeral sessions";

  QRVRequest::setCustomURLSession(QRVURLSession::makePersistent());
  send(server.url());
  send(server.url());
  QRVRequest::setCustomURLSession(nullptr);
  reqs = server.requests();
  ASSERT_EQ(reqs.size(), 4u);
  EXPECT_EQ(reqs[3].header("cookie"), "visit=1");
  EXPECT_EQ(reqs[3].connection, reqs[2].connection) << "the host's session keeps connections";
}

// What a host would write: a session of its own, installed through the public header only.
class HostURLSession final : public QRVURLSession {
 public:
  void dataTask(QRVHTTPRequest request, std::function<void(QRVHTTPResult)> completion) override {
    seen.push_back(request);
    QRVHTTPResult result;
    result.response = QRVHTTPResponse{.statusCode = 200, .url = request.url};
    result.body = R"({"answered_by":"host"})";
    completion(std::move(result));
  }
  std::vector<QRVHTTPRequest> seen;
};

TEST_F(QRVRequestTest, AHostsOwnURLSessionCarriesTheRequests) {
  HttpTestServer server;
  auto session = std::make_shared<HostURLSession>();
  setCustomURLSession(session);
  QRVRequestOptions options;
  options.method = "POST";
  options.body = Value(Value::Map{{"a", 1}});
  Recorder rec = send(server.url("/api/1/sessions"), options);
  setCustomURLSession(nullptr);

  EXPECT_EQ(rec.arg<1>(), Value(Value::Map{{"answered_by", "host"}}));
  ASSERT_EQ(session->seen.size(), 1u);
  EXPECT_EQ(session->seen[0].url, server.url("/api/1/sessions"));
  EXPECT_EQ(session->seen[0].method, "POST");
  EXPECT_EQ(session->seen[0].body, R"({"a":1})");
  EXPECT_TRUE(server.requests().empty());

  send(server.url());
  EXPECT_EQ(server.requests().size(), 1u) << "the library's own session again";
}

TEST(QRVSocketRequestTest, BuildsTheUpgradeRequest) {
  QRVBundle::setMain({.name = "Helpdesk", .version = "42"});
  struct Case {
    const char* base;
    std::optional<std::string> path;
    const char* url;
    std::optional<std::string> host;
  };
  const Case cases[] = {
      {"https://api.example.com/", std::nullopt, "wss://api.example.com/sockets/1/ws",
       "api.example.com"},
      {"https://api.example.com:443/", std::nullopt, "wss://api.example.com:443/sockets/1/ws",
       "api.example.com"},
      {"https://api.example.com:8443/", std::nullopt, "wss://api.example.com:8443/sockets/1/ws",
       std::nullopt},
      {"http://h:80/base/", "s/abc/", "ws://h:80/base/s/abc/sockets/1/ws", "h"},
      // Without a trailing "/" the last segment of the path is replaced.
      {"http://h/base/s/abc", std::nullopt, "ws://h/base/s/sockets/1/ws", "h"},
      {"https://h/", "wss://other:9000/x/", "wss://other:9000/x/sockets/1/ws", std::nullopt},
      {"HTTPS://h/", std::nullopt, "wss://h/sockets/1/ws", "h"},
      {"ftp://h:21/", std::nullopt, "ftp://h:21/sockets/1/ws", std::nullopt},
      // A Host value keeps an IPv6 address in its brackets.
      {"https://[::1]:443/", std::nullopt, "wss://[::1]:443/sockets/1/ws", "[::1]"},
      {"http://[::1]/", std::nullopt, "ws://[::1]/sockets/1/ws", "[::1]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.base);
    auto req =
        QRVRequest::socketRequest(c.path, "tok", {{"X-QuorviDevice", "D"}}, *QRVURL::parse(c.base));
    ASSERT_TRUE(req.has_value());
    EXPECT_EQ(req->url.toString(), c.url);
    EXPECT_EQ(req->header("Host"), c.host);
    EXPECT_EQ(req->header("Authorization"), "Bearer tok");
    EXPECT_EQ(req->header("User-Agent"), "Helpdesk/42");
    EXPECT_EQ(req->header("X-QuorviDevice"), "D");
    EXPECT_EQ(req->timeout, std::chrono::seconds(10));
  }
  // The upgrade sends that Host, and makes the same one when the request has none.
  for (bool withHost : {true, false}) {
    auto req = QRVRequest::socketRequest(std::nullopt, "t", {}, *QRVURL::parse("https://[::1]/"));
    if (!withHost)
      std::erase_if(req->headers, [](const auto& h) { return h.first == "Host"; });
    WSEndpoint endpoint = wsEndpoint(req->url);
    std::string text =
        buildHandshake({endpoint.resource, endpoint.authority, "", req->headers}, webSocketKey({}));
    EXPECT_NE(text.find("\r\nHost: [::1]\r\n"), std::string::npos) << text;
  }
  // The token wins over a caller's own Authorization header.
  auto req = QRVRequest::socketRequest(std::nullopt, "t2", {{"authorization", "Basic x"}},
                                       *QRVURL::parse("https://h/"));
  EXPECT_EQ(req->header("Authorization"), "Bearer t2");
  QRVBundle::resetMain();
}

}  // namespace
}  // namespace quorvix
