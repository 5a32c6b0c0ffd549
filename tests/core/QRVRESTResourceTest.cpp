#include "core/QRVRESTResource.h"

#include <gtest/gtest.h>

#include "../support/HttpTestServer.h"
#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"

namespace quorvix {
namespace {

using test::HttpTestServer;
using test::RecordedRequest;
using test::TestResponse;

// A resource at "things/T1" that refuses answers without an "id", as the service's resources do.
class Thing : public QRVRESTResource {
 public:
  std::optional<QRVURL> url() const override { return endpoint("things/T1"); }
  std::optional<QRVError> updateResource(const std::optional<Value>& value) override {
    ++updates;
    if (!value || !value->find("id"))
      return QRVError("Missing id", 0);
    return QRVRESTResource::updateResource(value);
  }
  int updates = 0;
};

using Recorder = test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVRESTResource>>;

class QRVRESTResourceTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = QRVRESTResource::baseUrl(); }
  void TearDown() override { QRVRESTResource::setBaseUrl(saved_); }

  Recorder run(const std::function<void(Recorder&)>& start) {
    Recorder rec;
    start(rec);
    EXPECT_TRUE(main_->runUntil([&] { return rec.called(); }));
    main_->advanceSeconds(1);
    EXPECT_EQ(rec.calls(), 1);
    return rec;
  }

  test::ScopedManualMainQueue main_;
  std::string saved_;
};

TEST_F(QRVRESTResourceTest, OperationsSendMergedHeadersAndMergeAnswers) {
  HttpTestServer server([](const RecordedRequest& r) {
    if (r.method == "DELETE")
      return TestResponse{204, ""};
    return TestResponse{200, R"({"id":"T1","seen":")" + r.method + "\"}"};
  });
  QRVRESTResource::setBaseUrl(server.url("/"));
  QRVRESTResource::setStaticHeaders({{"X-QuorviLicense", "static"}, {"X-Shared", "static"}});
  auto thing = std::make_shared<Thing>();
  thing->setHeaders({{"X-Shared", "instance"}, {"X-Token", "t"}});

  Recorder fetched = run([&](Recorder& r) { thing->fetch(r.once()); });
  EXPECT_FALSE(fetched.arg<0>());
  EXPECT_EQ(fetched.arg<1>(), thing) << "the completion receives the resource itself";
  EXPECT_EQ(*thing->field("seen"), Value("GET"));

  run([&](Recorder& r) { thing->create(Value::Map{{"a", 1}}, r.once()); });
  EXPECT_EQ(*thing->field("seen"), Value("POST"));
  run([&](Recorder& r) { thing->update(Value::Map{{"b", 2}}, r.once()); });
  EXPECT_EQ(*thing->field("seen"), Value("PUT"));

  // A 204 reaches updateResource with nothing, which this resource refuses; the error is
  // reported and the resource is left as it was.
  Recorder deleted = run([&](Recorder& r) { thing->deleteResource(r.once()); });
  ASSERT_TRUE(deleted.arg<0>());
  EXPECT_EQ(deleted.arg<0>()->message(), "Missing id");
  EXPECT_EQ(deleted.arg<0>()->code(), 0);

  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 4u);
  const char* methods[] = {"GET", "POST", "PUT", "DELETE"};
  for (size_t i = 0; i < reqs.size(); ++i) {
    EXPECT_EQ(reqs[i].method, methods[i]);
    EXPECT_EQ(reqs[i].target, "/things/T1");
    EXPECT_EQ(reqs[i].header("x-quorviapiversion"), "1.21.0");
    EXPECT_EQ(reqs[i].header("x-quorvilicense"), "static");
    EXPECT_EQ(reqs[i].header("x-shared"), "instance");
    EXPECT_EQ(reqs[i].header("x-token"), "t");
  }
  EXPECT_EQ(reqs[1].body, R"({"a":1})");
  EXPECT_EQ(reqs[2].body, R"({"b":2})");
  EXPECT_EQ(reqs[3].body, "");
}

TEST_F(QRVRESTResourceTest, ErrorsLeaveTheResourceUntouched) {
  HttpTestServer server([](const RecordedRequest&) {
    return TestResponse{403, R"({"message":"Forbidden","id":"other"})"};
  });
  QRVRESTResource::setBaseUrl(server.url("/"));
  auto thing = std::make_shared<Thing>();
  Recorder rec = run([&](Recorder& r) { thing->fetch(r.once()); });
  ASSERT_TRUE(rec.arg<0>());
  EXPECT_EQ(rec.arg<0>()->code(), 403);
  EXPECT_EQ(rec.arg<0>()->message(), "Forbidden");
  EXPECT_EQ(thing->updates, 0);
  EXPECT_TRUE(thing->resource().empty());
}

TEST_F(QRVRESTResourceTest, TheRequestKeepsTheResourceAliveUntilItsAnswer) {
  HttpTestServer server([](const RecordedRequest&) { return TestResponse{200, R"({"id":1})"}; });
  QRVRESTResource::setBaseUrl(server.url("/"));
  Recorder rec;
  std::weak_ptr<Thing> weak;
  {
    auto thing = std::make_shared<Thing>();
    weak = thing;
    thing->fetch(rec.callback());
  }
  EXPECT_FALSE(weak.expired());
  ASSERT_TRUE(main_->runUntil([&] { return rec.called(); }));
  rec = {};  // the recorder holds the resource it was given
  main_->advanceSeconds(1);
  EXPECT_TRUE(weak.expired());
}

TEST_F(QRVRESTResourceTest, EndpointsResolveAgainstTheBaseAddress) {
  struct Case {
    const char* base;
    const char* expected;
  };
  for (auto [base, expected] : {
           Case{"https://api.example.com", "https://api.example.com/api/1/sessions"},
           Case{"https://api.example.com/", "https://api.example.com/api/1/sessions"},
           Case{"https://h/v2/", "https://h/v2/api/1/sessions"},
           Case{"https://h/v2", "https://h/api/1/sessions"},
           Case{"https://h:8443/a/b/", "https://h:8443/a/b/api/1/sessions"},
       }) {
    QRVRESTResource::setBaseUrl(base);
    EXPECT_EQ(QRVRESTResource::baseUrl(), base) << "stored exactly as given";
    auto url = QRVRESTResource::endpoint("api/1/sessions");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->toString(), expected);
  }
  QRVRESTResource::setBaseUrl("not a url");
  EXPECT_FALSE(QRVRESTResource::endpoint("api/1/sessions"));
}

}  // namespace
}  // namespace quorvix
