// The keychain on a machine without a Secret Service: every item in one JSON file that only its
// owner can read, replaced by rename so that a crash leaves the old file or the new one, never
// half of either. A lock file serialises the host and its extensions.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <pwd.h>

#include "quorvix/QRVBundle.h"
#include "quorvix/Value.h"
#include "storage/KeychainStore.h"
#include "utils/Base64.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

namespace st = keychain_status;
namespace fs = std::filesystem;

constexpr const char* kFileName = "keychain.json";
constexpr const char* kLockName = "keychain.lock";
constexpr const char* kUnreadableName = "keychain.json.unreadable";
constexpr const char* kFormat = "io.quorvi.keychain";
constexpr std::int64_t kVersion = 1;
// Far beyond a handful of short strings; anything larger is not ours.
constexpr off_t kMaxFileSize = 1 << 20;

auto logger() {
  static auto l = QRV_LOGGER_FOR("FileKeychainStore");
  return l;
}

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

bool writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

enum class Load { ok, unreadable, ioError };

// Items as stored. Anything that does not have exactly this shape is unreadable.
std::optional<std::vector<KeychainItem>> decode(std::string_view text) {
  auto root = Value::fromJson(text);
  if (!root || !root->isMap())
    return std::nullopt;
  const Value* format = root->find("format");
  const Value* version = root->find("version");
  const Value* items = root->find("items");
  if (!format || !format->asString() || *format->asString() != kFormat || !version ||
      !version->isInteger() || version->toInt64() != kVersion || !items || !items->asArray())
    return std::nullopt;
  std::vector<KeychainItem> out;
  for (const Value& v : *items->asArray()) {
    const Value* account = v.find("account");
    const Value* service = v.find("service");
    const Value* group = v.find("group");
    const Value* data = v.find("data");
    if (!account || !account->asString() || !service || !service->asString() ||
        (group && !group->asString()) || (data && !data->asString()))
      return std::nullopt;
    KeychainItem item{*account->asString(), *service->asString(), std::nullopt, std::nullopt};
    if (group)
      item.accessGroup = *group->asString();
    if (data) {
      item.data = base64Decode(*data->asString());
      if (!item.data)
        return std::nullopt;
    }
    out.push_back(std::move(item));
  }
  return out;
}

std::string encode(const std::vector<KeychainItem>& items) {
  Value::Array array;
  for (const auto& item : items) {
    Value::Map m{{"account", item.account}, {"service", item.service}};
    if (item.accessGroup)
      m["group"] = *item.accessGroup;
    if (item.data)
      m["data"] = base64Encode(*item.data);
    array.emplace_back(std::move(m));
  }
  Value root(Value::Map{{"format", kFormat}, {"version", kVersion}, {"items", std::move(array)}});
  return *root.toJson();  // only strings and one integer: always writable
}

bool matches(const KeychainItem& item, const KeychainQuery& query) {
  return item.account == query.account && item.service == query.service;
}

class FileStore final : public KeychainStore {
 public:
  FileStore(fs::path directory, std::function<std::string()> defaultGroup)
      : directory_(std::move(directory)), defaultGroup_(std::move(defaultGroup)) {}

  KeychainStatus copyMatching(const KeychainQuery& query,
                              bool withData,
                              KeychainItem& found) override {
    std::lock_guard guard(mutex_);
    Fd lock;
    if (KeychainStatus status = open(LOCK_SH, lock))
      return status;
    std::vector<KeychainItem> items;
    switch (load(items)) {
      case Load::ok:
        break;
      case Load::unreadable:
        return st::kDecode;
      case Load::ioError:
        return st::kIO;
    }
    for (const auto& item : items) {
      if (matches(item, query)) {
        found = item;
        if (!withData)
          found.data.reset();
        return st::kSuccess;
      }
    }
    return st::kItemNotFound;
  }

  KeychainStatus add(const KeychainItem& item, KeychainItem* added) override {
    KeychainItem stored = item;
    if (!stored.accessGroup)
      stored.accessGroup = defaultGroup_();
    KeychainStatus status = change([&](std::vector<KeychainItem>& items) {
      for (const auto& existing : items)
        if (existing.account == stored.account && existing.service == stored.service &&
            existing.accessGroup == stored.accessGroup)
          return st::kDuplicateItem;
      items.push_back(stored);
      return st::kSuccess;
    });
    if (status == st::kSuccess && added) {
      *added = std::move(stored);
      added->data.reset();
    }
    return status;
  }

  KeychainStatus remove(const KeychainQuery& query) override {
    return change([&](std::vector<KeychainItem>& items) {
      auto removed = std::erase_if(items, [&](const auto& item) { return matches(item, query); });
      return removed ? st::kSuccess : st::kItemNotFound;
    });
  }

 private:
  // Applies `edit` to the items under the exclusive lock, and saves them when it succeeds.
  template <typename Edit>
  KeychainStatus change(Edit edit) {
    std::lock_guard guard(mutex_);
    Fd lock;
    if (KeychainStatus status = open(LOCK_EX, lock))
      return status;
    std::vector<KeychainItem> items;
    if (!loadForWrite(items))
      return st::kIO;
    if (KeychainStatus status = edit(items))
      return status;
    return save(items) ? st::kSuccess : st::kIO;
  }

  // Makes the directory (0700, ours alone) and takes the lock file.
  KeychainStatus open(int operation, Fd& lock) {
    if (!prepareDirectory())
      return st::kIO;
    Fd fd(
        ::open((directory_ / kLockName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) {
      logger()->error("Cannot open the keychain lock in {}: {}", directory_.string(),
                      std::strerror(errno));
      return st::kIO;
    }
    while (::flock(fd.get(), operation) != 0) {
      if (errno != EINTR)
        return st::kIO;
    }
    lock = std::move(fd);
    return st::kSuccess;
  }

  bool prepareDirectory() {
    // Missing parents are made private too: XDG data directories belong to their user alone.
    fs::path path;
    for (const auto& part : directory_) {
      path /= part;
      if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        logger()->error("Cannot create {}: {}", path.string(), std::strerror(errno));
        return false;
      }
    }
    struct stat info {};
    if (::stat(directory_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      logger()->error("The keychain directory {} is not a directory", directory_.string());
      return false;
    }
    if (info.st_uid != ::getuid()) {
      logger()->error("The keychain directory {} belongs to another user", directory_.string());
      return false;
    }
    if ((info.st_mode & 077) != 0 && ::chmod(directory_.c_str(), 0700) != 0)
      return false;
    return true;
  }

  Load load(std::vector<KeychainItem>& items) {
    items.clear();
    const fs::path file = directory_ / kFileName;
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd) {
      if (errno == ENOENT)
        return Load::ok;
      // A symbolic link (ELOOP) is not a file this store wrote.
      return errno == ELOOP ? Load::unreadable : Load::ioError;
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
      return Load::ioError;
    // Someone else's file, or one that others could have written, is not trusted.
    if (!S_ISREG(info.st_mode) || info.st_uid != ::getuid() || (info.st_mode & 022) != 0 ||
        info.st_size > kMaxFileSize)
      return Load::unreadable;
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
      ssize_t n = ::read(fd.get(), text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0)
        return Load::ioError;
      if (n == 0)
        break;
      done += static_cast<std::size_t>(n);
    }
    text.resize(done);
    auto decoded = decode(text);
    if (!decoded)
      return Load::unreadable;
    items = std::move(*decoded);
    return Load::ok;
  }

  // An unreadable file counts as an empty store for writes; it is kept aside, not destroyed.
  bool loadForWrite(std::vector<KeychainItem>& items) {
    switch (load(items)) {
      case Load::ok:
        return true;
      case Load::ioError:
        return false;
      case Load::unreadable:
        break;
    }
    const fs::path file = directory_ / kFileName;
    const fs::path aside = directory_ / kUnreadableName;
    if (::rename(file.c_str(), aside.c_str()) != 0) {
      logger()->error("Cannot move the unreadable keychain file {} aside: {}", file.string(),
                      std::strerror(errno));
      return false;
    }
    logger()->error("The keychain file {} was unreadable; it is kept as {}", file.string(),
                    aside.string());
    return true;
  }

  bool save(const std::vector<KeychainItem>& items) {
    const fs::path file = directory_ / kFileName;
    std::string temp = (directory_ / (std::string(kFileName) + ".XXXXXX")).string();
    Fd fd(::mkostemp(temp.data(), O_CLOEXEC));  // 0600
    if (!fd) {
      logger()->error("Cannot write the keychain file in {}: {}", directory_.string(),
                      std::strerror(errno));
      return false;
    }
    const bool written = writeAll(fd.get(), encode(items)) && ::fsync(fd.get()) == 0 &&
                         ::rename(temp.c_str(), file.c_str()) == 0;
    if (!written) {
      logger()->error("Cannot write the keychain file {}: {}", file.string(), std::strerror(errno));
      ::unlink(temp.c_str());
      return false;
    }
    // The rename itself must reach the disk for the new file to survive a crash.
    Fd dir(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir)
      ::fsync(dir.get());
    return true;
  }

  const fs::path directory_;
  const std::function<std::string()> defaultGroup_;
  std::mutex mutex_;
};

}  // namespace

std::string defaultAccessGroup() {
  QRVBundle bundle = QRVBundle::main();
  std::string team = bundle.teamIdentifier;
  if (team.empty())
    team = "u" + std::to_string(::getuid());
  std::replace(team.begin(), team.end(), '.', '-');
  return team + "." + bundle.identifier;
}

fs::path defaultFileStoreDirectory() {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  // Relative values are invalid and must be ignored.
  if (dataHome && dataHome[0] == '/')
    return fs::path(dataHome) / "quorvix";
  const char* home = std::getenv("HOME");
  std::string homeDir = home && home[0] == '/' ? home : "";
  if (homeDir.empty()) {
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir)
      homeDir = pw->pw_dir;
  }
  return fs::path(homeDir.empty() ? "/tmp" : homeDir) / ".local" / "share" / "quorvix";
}

std::shared_ptr<KeychainStore> makeFileStore(fs::path directory,
                                             std::function<std::string()> defaultGroup) {
  return std::make_shared<FileStore>(std::move(directory), std::move(defaultGroup));
}

}  // namespace quorvix
