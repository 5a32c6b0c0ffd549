// The keychain on the Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret. An
// item is a secret of the "io.quorvi.Keychain" schema whose attributes are its account, service
// and access group; the value is its secret.
#include <libsecret/secret.h>

#include <memory>

#include "storage/KeychainStore.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

namespace st = keychain_status;

const SecretSchema kSchema = {"io.quorvi.Keychain",
                              SECRET_SCHEMA_NONE,
                              {
                                  {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                  {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                  {"group", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                  {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                              },
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

auto logger() {
  static auto l = QRV_LOGGER_FOR("SecretServiceStore");
  return l;
}

struct TableDeleter {
  void operator()(GHashTable* t) const { g_hash_table_unref(t); }
};
struct ValueDeleter {
  void operator()(SecretValue* v) const { secret_value_unref(v); }
};
struct ListDeleter {
  void operator()(GList* l) const { g_list_free_full(l, g_object_unref); }
};
using Table = std::unique_ptr<GHashTable, TableDeleter>;

// Collects a GError reported through an out-parameter.
class ErrorOut {
 public:
  ~ErrorOut() {
    if (error_)
      g_error_free(error_);
  }
  GError** operator&() { return &error_; }
  const GError* get() const { return error_; }

 private:
  GError* error_ = nullptr;
};

KeychainStatus statusFor(const GError* error) {
  if (error->domain == G_DBUS_ERROR && error->code == G_DBUS_ERROR_ACCESS_DENIED)
    return st::kMissingEntitlement;  // e.g. a sandbox without access to the service
  if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CANCELLED)
    return st::kUserCanceled;  // an unlock prompt was dismissed
  if (error->domain == SECRET_ERROR) {
    if (error->code == SECRET_ERROR_IS_LOCKED)
      return st::kInteractionNotAllowed;
    if (error->code == SECRET_ERROR_NO_SUCH_OBJECT)
      return st::kItemNotFound;
    return st::kIO;
  }
  return st::kNotAvailable;
}

KeychainStatus fail(const char* operation, const GError* error) {
  KeychainStatus status = statusFor(error);
  logger()->debug("Secret Service {} failed ({}): {}", operation, status, error->message);
  return status;
}

Table attributes(const std::string& account,
                 const std::string& service,
                 const std::optional<std::string>& group) {
  Table table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
  g_hash_table_insert(table.get(), g_strdup("account"), g_strdup(account.c_str()));
  g_hash_table_insert(table.get(), g_strdup("service"), g_strdup(service.c_str()));
  if (group)
    g_hash_table_insert(table.get(), g_strdup("group"), g_strdup(group->c_str()));
  return table;
}

class SecretServiceStore final : public KeychainStore {
 public:
  explicit SecretServiceStore(std::function<std::string()> defaultGroup)
      : defaultGroup_(std::move(defaultGroup)) {}

  KeychainStatus copyMatching(const KeychainQuery& query,
                              bool withData,
                              KeychainItem& found) override {
    return find(query.account, query.service, std::nullopt, withData, &found);
  }

  KeychainStatus add(const KeychainItem& item, KeychainItem* added) override {
    KeychainItem stored = item;
    if (!stored.accessGroup)
      stored.accessGroup = defaultGroup_();
    // Storing replaces an item with the same attributes; adding must not.
    KeychainStatus status =
        find(stored.account, stored.service, stored.accessGroup, false, nullptr);
    if (status == st::kSuccess)
      return st::kDuplicateItem;
    if (status != st::kItemNotFound)
      return status;
    Table table = attributes(stored.account, stored.service, stored.accessGroup);
    const std::string& bytes = stored.data ? *stored.data : std::string();
    std::unique_ptr<SecretValue, ValueDeleter> value(
        secret_value_new(bytes.data(), static_cast<gssize>(bytes.size()), "text/plain"));
    const std::string label = "Quorvix: " + stored.service;
    ErrorOut error;
    if (!secret_password_storev_binary_sync(&kSchema, table.get(), SECRET_COLLECTION_DEFAULT,
                                            label.c_str(), value.get(), nullptr, &error))
      return fail("store", error.get());
    if (added) {
      *added = std::move(stored);
      added->data.reset();
    }
    return st::kSuccess;
  }

  KeychainStatus remove(const KeychainQuery& query) override {
    Table table = attributes(query.account, query.service, std::nullopt);
    ErrorOut error;
    gboolean removed = secret_password_clearv_sync(&kSchema, table.get(), nullptr, &error);
    if (error.get())
      return fail("clear", error.get());
    return removed ? st::kSuccess : st::kItemNotFound;
  }

 private:
  KeychainStatus find(const std::string& account,
                      const std::string& service,
                      const std::optional<std::string>& group,
                      bool withData,
                      KeychainItem* found) {
    Table table = attributes(account, service, group);
    const auto flags = static_cast<SecretSearchFlags>(SECRET_SEARCH_UNLOCK |
                                                      (withData ? SECRET_SEARCH_LOAD_SECRETS : 0));
    ErrorOut error;
    std::unique_ptr<GList, ListDeleter> list(
        secret_password_searchv_sync(&kSchema, table.get(), flags, nullptr, &error));
    if (error.get())
      return fail("search", error.get());
    if (!list)
      return st::kItemNotFound;
    if (!found)
      return st::kSuccess;
    auto* retrievable = static_cast<SecretRetrievable*>(list->data);
    Table attrs(secret_retrievable_get_attributes(retrievable));
    auto text = [&](const char* name) -> std::optional<std::string> {
      auto* v = static_cast<const char*>(g_hash_table_lookup(attrs.get(), name));
      return v ? std::optional<std::string>(v) : std::nullopt;
    };
    *found = KeychainItem{text("account").value_or(account), text("service").value_or(service),
                          text("group"), std::nullopt};
    if (withData) {
      ErrorOut secretError;
      std::unique_ptr<SecretValue, ValueDeleter> value(
          secret_retrievable_retrieve_secret_sync(retrievable, nullptr, &secretError));
      if (secretError.get())
        return fail("retrieve", secretError.get());
      if (value) {
        gsize size = 0;
        const gchar* bytes = secret_value_get(value.get(), &size);
        found->data = std::string(bytes, size);
      }
    }
    return st::kSuccess;
  }

  const std::function<std::string()> defaultGroup_;
};

}  // namespace

bool secretServiceAnswers() {
  // A search for nothing in particular: an empty answer means a service is there.
  Table table = attributes("qrvServiceProbe", "qrvServiceProbe", std::nullopt);
  ErrorOut error;
  std::unique_ptr<GList, ListDeleter> list(
      secret_password_searchv_sync(&kSchema, table.get(), SECRET_SEARCH_NONE, nullptr, &error));
  if (error.get()) {
    logger()->debug("No Secret Service: {}", error.get()->message);
    return false;
  }
  return true;
}

std::shared_ptr<KeychainStore> makeSecretServiceStore(std::function<std::string()> defaultGroup) {
  return std::make_shared<SecretServiceStore>(std::move(defaultGroup));
}

}  // namespace quorvix
