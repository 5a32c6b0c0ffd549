// The two platform stores against the same expectations, and the file store's own safeguards.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "../support/LogCapture.h"
#include "../support/TempDir.h"
#include "quorvix/QRVBundle.h"
#include "storage/QRVKeychain.h"
#include "utils/UUID.h"

namespace quorvix {
namespace {

namespace st = keychain_status;
namespace fs = std::filesystem;
using test::LogCapture;
using test::TempDir;

enum class Backend { file, secretService };

std::string name(const ::testing::TestParamInfo<Backend>& info) {
  return info.param == Backend::file ? "File" : "SecretService";
}

class KeychainStoreTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    if (GetParam() == Backend::secretService) {
      // Only inside the private bus and keyring that the test runner starts, never a user's.
      const char* enabled = std::getenv("QRV_TEST_SECRET_SERVICE");
      if (!enabled || std::string(enabled) != "1" || !secretServiceAnswers())
        GTEST_SKIP() << "no private Secret Service (run through tests/storage/with-secret-service)";
      store = makeSecretServiceStore([] { return std::string("T.app"); });
    } else {
      ASSERT_TRUE(dir.ok());
      store = makeFileStore(dir.path() / "data" / "quorvix", [] { return std::string("T.app"); });
    }
  }
  void TearDown() override {
    if (store)
      for (const auto& key : {a, b, probe})
        store->remove({key, key});
    QRVKeychain::setStore(nullptr);
  }

  KeychainStatus add(const std::string& key,
                     std::optional<std::string> group,
                     std::optional<std::string> data) {
    return store->add(KeychainItem{key, key, std::move(group), std::move(data)}, nullptr);
  }

  TempDir dir;
  std::shared_ptr<KeychainStore> store;
  // Unique names, so that a keyring shared with an earlier run holds nothing of ours.
  const std::string run = makeUUIDString();
  const std::string a = "a." + run, b = "b." + run, probe = "qrvBundleTest";
};

TEST_P(KeychainStoreTest, AddFindAndRemoveAcrossGroups) {
  KeychainItem found;
  EXPECT_EQ(store->copyMatching({a, a}, true, found), st::kItemNotFound);
  EXPECT_EQ(store->remove({a, a}), st::kItemNotFound);

  KeychainItem added;
  ASSERT_EQ(store->add(KeychainItem{a, a, std::nullopt, "één ✓"}, &added), st::kSuccess);
  EXPECT_EQ(added.accessGroup, "T.app") << "the default group";
  EXPECT_EQ(add(a, std::nullopt, "again"), st::kDuplicateItem);
  ASSERT_EQ(add(a, "T.io.quorvi", "shared"), st::kSuccess);
  ASSERT_EQ(add(b, "T.io.quorvi", std::string("with\0nul", 8)), st::kSuccess);

  ASSERT_EQ(store->copyMatching({b, b}, true, found), st::kSuccess);
  EXPECT_EQ(found.account, b);
  EXPECT_EQ(found.accessGroup, "T.io.quorvi");
  EXPECT_EQ(found.data, std::string("with\0nul", 8));
  ASSERT_EQ(store->copyMatching({b, b}, false, found), st::kSuccess);
  EXPECT_EQ(found.data, std::nullopt) << "data only when asked for";

  // Removal ignores the group: both of a's items go, b stays.
  EXPECT_EQ(store->remove({a, a}), st::kSuccess);
  EXPECT_EQ(store->copyMatching({a, a}, true, found), st::kItemNotFound);
  EXPECT_EQ(store->copyMatching({b, b}, true, found), st::kSuccess);
}

TEST_P(KeychainStoreTest, KeychainOperationsRunOnTheStore) {
  QRVKeychain::setStore(store);
  EXPECT_EQ(QRVKeychain::teamId(), "T");
  EXPECT_EQ(QRVKeychain::setValue("first", a, QRVKeychain::privateGroup()), st::kSuccess);
  EXPECT_EQ(QRVKeychain::setValue("second", a, QRVKeychain::sharedGroup()), st::kSuccess);
  EXPECT_EQ(QRVKeychain::getValue(a, std::nullopt), "second");
  KeychainItem found;
  ASSERT_EQ(store->copyMatching({a, a}, false, found), st::kSuccess);
  EXPECT_EQ(found.accessGroup, "T.io.quorvi");
  EXPECT_EQ(store->copyMatching({probe, probe}, false, found), st::kItemNotFound)
      << "the probe is not left behind";
  EXPECT_EQ(QRVKeychain::clearKey(a, std::nullopt), st::kSuccess);
  EXPECT_EQ(QRVKeychain::getValue(a, std::nullopt), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Stores,
                         KeychainStoreTest,
                         ::testing::Values(Backend::file, Backend::secretService),
                         name);

class FileStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dir.ok()); }
  void TearDown() override { QRVKeychain::setStore(nullptr); }

  std::shared_ptr<KeychainStore> open() {
    return makeFileStore(storeDir, [] { return std::string("T.app"); });
  }
  void writeFile(const std::string& text, mode_t mode = 0600) {
    fs::create_directories(storeDir);
    {
      std::ofstream out(file(), std::ios::trunc);
      out << text;
    }
    ::chmod(file().c_str(), mode);
  }
  fs::path file() const { return storeDir / "keychain.json"; }
  static mode_t mode(const fs::path& p) {
    struct stat info {};
    ::stat(p.c_str(), &info);
    return info.st_mode & 07777;
  }

  TempDir dir;
  fs::path storeDir = dir.path() / "share" / "quorvix";
  LogCapture log;
};

TEST_F(FileStoreTest, OnlyTheOwnerCanReachTheFile) {
  auto store = open();
  ASSERT_EQ(store->add({"k", "k", "G", "v"}, nullptr), st::kSuccess);
  EXPECT_EQ(mode(storeDir), 0700u);
  EXPECT_EQ(mode(dir.path() / "share"), 0700u) << "missing parents are private too";
  EXPECT_EQ(mode(file()), 0600u);

  // A directory opened up by someone is closed again on the next use.
  ::chmod(storeDir.c_str(), 0755);
  KeychainItem found;
  EXPECT_EQ(store->copyMatching({"k", "k"}, true, found), st::kSuccess);
  EXPECT_EQ(mode(storeDir), 0700u);

  // Nothing but the file, its lock, and no temporary left over.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(storeDir))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"keychain.json", "keychain.lock"}));
}

TEST_F(FileStoreTest, UnreadableFilesAreReportedAndTreatedAsAbsent) {
  const std::string valid =
      R"({"format":"io.quorvi.keychain","version":1,"items":[{"account":"k","service":"k","data":"dg=="}]})";
  const std::vector<std::pair<std::string, mode_t>> bad = {
      {"{\"format\":\"io.quorvi.keychain\",\"ver", 0600},                   // cut short
      {"[1,2,3]", 0600},                                                    // not ours
      {R"({"format":"other","version":1,"items":[]})", 0600},               // foreign
      {R"({"format":"io.quorvi.keychain","version":2,"items":[]})", 0600},  // newer
      {R"({"format":"io.quorvi.keychain","version":1,"items":[{"account":1}]})", 0600},
      {R"({"format":"io.quorvi.keychain","version":1,"items":[{"account":"k","service":"k","data":"d==="}]})",
       0600},
      {std::string("\xff\xfe\x00garbage", 10), 0600},
      {valid, 0666},  // anyone could have written it
  };
  QRVKeychain::setStore(open());
  for (const auto& [text, fileMode] : bad) {
    SCOPED_TRACE(text);
    writeFile(text, fileMode);
    log.clear();
    EXPECT_EQ(QRVKeychain::getValue("k", std::nullopt), std::nullopt);
    EXPECT_TRUE(log.contains(LogLevel::error, "Failed to get keychain value -26275"));
  }

  // Writing starts afresh and keeps the unreadable file aside rather than destroying it.
  EXPECT_EQ(QRVKeychain::setValue("fresh", "k", "G"), st::kSuccess);
  EXPECT_EQ(QRVKeychain::getValue("k", std::nullopt), "fresh");
  EXPECT_TRUE(fs::exists(storeDir / "keychain.json.unreadable"));
  EXPECT_EQ(mode(file()), 0600u);

  // A link in the file's place is not followed.
  fs::remove(file());
  std::ofstream(dir.path() / "elsewhere") << valid;
  fs::create_symlink(dir.path() / "elsewhere", file());
  EXPECT_EQ(QRVKeychain::getValue("k", std::nullopt), std::nullopt);

  fs::remove(file());
  writeFile(valid);
  EXPECT_EQ(QRVKeychain::getValue("k", std::nullopt), "v");
}

TEST_F(FileStoreTest, ConcurrentWritersLoseNothing) {
  // As the host and an extension would: separate store objects on one directory.
  constexpr int kWriters = 4, kKeys = 25;
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w)
    threads.emplace_back([this, w] {
      auto store = open();
      for (int k = 0; k < kKeys; ++k) {
        const std::string key = std::to_string(w) + "." + std::to_string(k);
        store->add({key, key, std::nullopt, key}, nullptr);
      }
    });
  for (auto& t : threads)
    t.join();
  auto store = open();
  for (int w = 0; w < kWriters; ++w)
    for (int k = 0; k < kKeys; ++k) {
      const std::string key = std::to_string(w) + "." + std::to_string(k);
      KeychainItem found;
      ASSERT_EQ(store->copyMatching({key, key}, true, found), st::kSuccess) << key;
      EXPECT_EQ(found.data, key);
    }
}

TEST_F(FileStoreTest, ADirectoryThatCannotBeMadeFailsEveryOperation) {
  std::ofstream(dir.path() / "share") << "a file where a directory should be";
  auto store = open();
  KeychainItem found;
  EXPECT_EQ(store->copyMatching({"k", "k"}, true, found), st::kIO);
  EXPECT_EQ(store->add({"k", "k", std::nullopt, "v"}, nullptr), st::kIO);
  EXPECT_EQ(store->remove({"k", "k"}), st::kIO);
}

TEST(KeychainPlacesTest, DefaultGroupAndDirectory) {
  QRVBundle bundle = QRVBundle::main();
  bundle.identifier = "com.example.helpdesk";
  bundle.teamIdentifier = "";
  QRVBundle::setMain(bundle);
  EXPECT_EQ(defaultAccessGroup(), "u" + std::to_string(::getuid()) + ".com.example.helpdesk");
  bundle.teamIdentifier = "ex.ample";
  QRVBundle::setMain(bundle);
  EXPECT_EQ(defaultAccessGroup(), "ex-ample.com.example.helpdesk") << "the team has no dots";
  QRVBundle::resetMain();

  const char* saved = std::getenv("XDG_DATA_HOME");
  std::string restore = saved ? saved : "";
  ::setenv("XDG_DATA_HOME", "/data/home", 1);
  EXPECT_EQ(defaultFileStoreDirectory(), fs::path("/data/home/quorvix"));
  ::setenv("XDG_DATA_HOME", "relative/ignored", 1);
  EXPECT_EQ(defaultFileStoreDirectory().filename(), "quorvix");
  EXPECT_EQ(defaultFileStoreDirectory().parent_path().filename(), "share");
  if (saved)
    ::setenv("XDG_DATA_HOME", restore.c_str(), 1);
  else
    ::unsetenv("XDG_DATA_HOME");
}

TEST(KeychainPlacesTest, WithoutASessionBusNoSecretServiceAnswers) {
  // Each case runs in its own process, so no connection to a real bus is cached yet.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quorvix-test-bus", 1);
  EXPECT_FALSE(secretServiceAnswers());
}

}  // namespace
}  // namespace quorvix
