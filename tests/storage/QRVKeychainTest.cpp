#include "storage/QRVKeychain.h"

#include <gtest/gtest.h>

#include "../support/FakeKeychainStore.h"
#include "../support/LogCapture.h"
#include "quorvix/QRVBundle.h"

namespace quorvix {
namespace {

namespace st = keychain_status;
using test::FakeKeychainStore;
using test::LogCapture;

class QRVKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRVBundle bundle = QRVBundle::main();
    bundle.identifier = "app.example";
    QRVBundle::setMain(bundle);
    QRVKeychain::setStore(store);
  }
  void TearDown() override {
    QRVKeychain::setStore(nullptr);
    QRVBundle::resetMain();
  }

  std::shared_ptr<FakeKeychainStore> store = std::make_shared<FakeKeychainStore>();
  LogCapture log;
};

TEST_F(QRVKeychainTest, TeamIdComesFromTheProbeItemsGroupAndIsCachedOnceFound) {
  store->copyFailures = {st::kInteractionNotAllowed, st::kInteractionNotAllowed};
  EXPECT_EQ(QRVKeychain::teamId(), std::nullopt);
  EXPECT_EQ(QRVKeychain::sharedGroup(), std::nullopt);
  EXPECT_TRUE(log.contains(LogLevel::debug, "Failed to determine team ID -25308"));

  // Retried on every call until it succeeds; the probe is added, read and removed.
  store->addFailures = {st::kNotAvailable};
  EXPECT_EQ(QRVKeychain::teamId(), std::nullopt);
  store->operations.clear();
  EXPECT_EQ(QRVKeychain::teamId(), "TEAM");
  EXPECT_EQ(store->operations,
            (std::vector<std::string>{"copy qrvBundleTest", "add qrvBundleTest -",
                                      "remove qrvBundleTest"}));
  EXPECT_TRUE(store->items.empty());

  store->operations.clear();
  EXPECT_EQ(QRVKeychain::sharedGroup(), "TEAM.io.quorvi");
  EXPECT_EQ(QRVKeychain::privateGroup(), "TEAM.app.example");
  EXPECT_TRUE(store->operations.empty()) << "cached";
}

TEST_F(QRVKeychainTest, WritingDeletesEveryGroupsItemThenAdds) {
  store->items = {
      {"k", "k", "A.x", "old"}, {"k", "k", "B.y", "older"}, {"other", "other", {}, "o"}};
  EXPECT_EQ(QRVKeychain::setValue("new", "k", "B.y"), st::kSuccess);
  EXPECT_EQ(store->operations, (std::vector<std::string>{"remove k", "add k B.y"}));
  ASSERT_EQ(store->items.size(), 2u);
  EXPECT_EQ(QRVKeychain::getValue("k", std::nullopt), "new");

  // Without a group, the store's default one.
  EXPECT_EQ(QRVKeychain::setValue("v", "fresh", std::nullopt), st::kSuccess);
  EXPECT_EQ(store->items.back().accessGroup, "TEAM.app.example");

  EXPECT_EQ(QRVKeychain::clearKey("k", "unrelated"), st::kSuccess);
  EXPECT_EQ(QRVKeychain::getValue("k", "B.y"), std::nullopt);
  EXPECT_EQ(QRVKeychain::clearKey("k", std::nullopt), st::kItemNotFound);
}

TEST_F(QRVKeychainTest, AFailedDeleteKeepsTheOldValueAndLogsTheKeyNotTheValue) {
  store->items = {{"io.quorvi.license", "io.quorvi.license", "G", "old-key"}};
  store->removeFailures = {st::kInteractionNotAllowed};
  EXPECT_EQ(QRVKeychain::setValue("SECRET-ACCOUNT-KEY", "io.quorvi.license", "G"),
            st::kInteractionNotAllowed);
  EXPECT_EQ(QRVKeychain::getValue("io.quorvi.license", "G"), "old-key");
  EXPECT_TRUE(log.contains(LogLevel::debug, "Failed to set io.quorvi.license, reason: -25308"));

  // A missing entitlement stops before the write, naming the group asked for.
  store->removeFailures = {st::kMissingEntitlement};
  EXPECT_EQ(QRVKeychain::setValue("SECRET-ACCOUNT-KEY", "io.quorvi.license", "G"),
            st::kMissingEntitlement);
  EXPECT_TRUE(log.contains(LogLevel::error, "Missing entitlement for keychain group G"));
  store->removeFailures = {st::kMissingEntitlement};
  QRVKeychain::setValue("SECRET-ACCOUNT-KEY", "io.quorvi.license", std::nullopt);
  EXPECT_TRUE(log.contains(LogLevel::error, "Missing entitlement for keychain group (null)"));

  // A failed add is reported too.
  store->addFailures = {st::kIO};
  EXPECT_EQ(QRVKeychain::setValue("SECRET-ACCOUNT-KEY", "io.quorvi.license", "G"), st::kIO);
  EXPECT_TRUE(log.contains(LogLevel::debug, "Failed to set io.quorvi.license, reason: -36"));
  EXPECT_FALSE(log.mentions("SECRET-ACCOUNT-KEY"));
}

TEST_F(QRVKeychainTest, ReadFailuresGiveNothingWithTheirLogLines) {
  store->items = {{"empty", "empty", "G", std::nullopt}};
  EXPECT_EQ(QRVKeychain::getValue("empty", "G"), std::nullopt);
  EXPECT_TRUE(log.contains(LogLevel::error, "Keychain item was missing data"));

  store->items.push_back({"latin1", "latin1", "G", "caf\xe9"});
  EXPECT_EQ(QRVKeychain::getValue("latin1", "G"), std::nullopt) << "not UTF-8";

  log.clear();
  EXPECT_EQ(QRVKeychain::getValue("absent", "G"), std::nullopt);
  EXPECT_TRUE(log.messages(LogLevel::error).empty()) << "not found is silent";

  // The shared group is named, whichever group was asked for.
  store->copyFailures = {st::kMissingEntitlement};
  EXPECT_EQ(QRVKeychain::getValue("empty", "private"), std::nullopt);
  EXPECT_TRUE(
      log.contains(LogLevel::error, "Missing entitlement for keychain group TEAM.io.quorvi"));

  store->copyFailures = {st::kDecode};
  EXPECT_EQ(QRVKeychain::getValue("empty", "G"), std::nullopt);
  EXPECT_TRUE(log.contains(LogLevel::error, "Failed to get keychain value -26275"));
}

}  // namespace
}  // namespace quorvix
