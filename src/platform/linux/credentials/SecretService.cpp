#include "platform/linux/credentials/SecretService.h"

#include <libsecret/secret.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr const char* kBusName = "org.freedesktop.secrets";

const SecretSchema* schema() {
  static const SecretSchema value = [] {
    SecretSchema made{};
    made.name = "com.fennwick.Kestrune.Credential";
    made.flags = SECRET_SCHEMA_NONE;
    made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return made;
  }();
  return &value;
}

/// Cancels what it was given to when the time is over.
class TimeLimit {
 public:
  explicit TimeLimit(std::chrono::seconds limit)
      : cancellable_(g_cancellable_new()), thread_([this, limit] {
          std::unique_lock guard(lock_);
          if (!ended_.wait_for(guard, limit, [this] { return isEnded_; })) g_cancellable_cancel(cancellable_);
        }) {}
  TimeLimit(const TimeLimit&) = delete;
  ~TimeLimit() {
    {
      std::lock_guard guard(lock_);
      isEnded_ = true;
    }
    ended_.notify_all();
    thread_.join();
    g_object_unref(cancellable_);
  }
  GCancellable* get() const { return cancellable_; }

 private:
  GCancellable* const cancellable_;
  std::mutex lock_;
  std::condition_variable ended_;
  bool isEnded_ = false;  // guarded by lock_
  std::thread thread_;
};

/// Whether it failed; the text goes to the log.
bool report(GError* error) {
  if (!error) return false;
  kLog.error(std::string("Secret Service: ") + error->message);
  g_error_free(error);
  return true;
}

/// Makes libdbus clients find the bus, but never start one.
bool hasSessionBus() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && address[0] != '\0')
    return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || runtime[0] != '/') return false;
  const std::string path = std::string(runtime) + "/bus";
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  return setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1) == 0;
}

/// Whether the bus lists the name in the reply to `method`, an array of names.
bool lists(GDBusConnection* bus, const char* method, GCancellable* cancellable) {
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, nullptr,
      G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1, cancellable, nullptr);
  if (!reply) return false;
  GVariantIter* names = nullptr;
  const char* name = nullptr;
  bool found = false;
  g_variant_get(reply, "(as)", &names);
  while (g_variant_iter_next(names, "&s", &name)) found = found || std::strcmp(name, kBusName) == 0;
  g_variant_iter_free(names);
  g_variant_unref(reply);
  return found;
}

bool isDefaultCollectionLocked(::SecretService* service, GCancellable* cancellable, GError** error) {
  SecretCollection* collection = secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT,
                                                                  SECRET_COLLECTION_NONE, cancellable, error);
  if (!collection) return false;
  const bool isLocked = secret_collection_get_locked(collection);
  g_object_unref(collection);
  return isLocked;
}

/// Whether the item has been found after all, if not opened: the user would not unlock the keyring.
bool isListed(::SecretService* service, const std::string& serviceName, const std::string& account,
              GCancellable* cancellable, GError** error) {
  GHashTable* attributes =
      secret_attributes_build(schema(), "service", serviceName.c_str(), "account", account.c_str(), nullptr);
  GList* items =
      secret_service_search_sync(service, schema(), attributes, SECRET_SEARCH_NONE, cancellable, error);
  g_hash_table_unref(attributes);
  const bool hasItems = items != nullptr;
  g_list_free_full(items, g_object_unref);
  return hasItems;
}

/// What a lookup means that neither found nor failed. libsecret says nothing of a keyring that stayed locked,
/// and one that was not open since login does not even list what it has.
SecretService::Outcome meaningOfNothing(const std::string& serviceName, const std::string& account,
                                        GCancellable* cancellable) {
  GError* error = nullptr;
  // A new one: the shared one may remember an older state of the lock.
  ::SecretService* service =
      secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_NONE, cancellable, &error);
  const bool isLocked = service && (isDefaultCollectionLocked(service, cancellable, &error) ||
                                    (!error && isListed(service, serviceName, account, cancellable, &error)));
  if (service) g_object_unref(service);
  if (report(error)) return SecretService::Outcome::failed;
  if (!isLocked) return SecretService::Outcome::notFound;
  kLog.error("Secret Service: the keyring is locked");
  return SecretService::Outcome::failed;
}

}  // namespace

std::unique_ptr<SecretService> SecretService::connect(Limits limits) {
  if (!hasSessionBus()) return nullptr;
  const TimeLimit limit(limits.connect);
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, limit.get(), nullptr);
  if (!bus) return nullptr;
  const bool isServed =
      lists(bus, "ListNames", limit.get()) || lists(bus, "ListActivatableNames", limit.get());
  g_object_unref(bus);
  return isServed ? std::unique_ptr<SecretService>(new SecretService(limits)) : nullptr;
}

SecretService::Found SecretService::read(const std::string& service, const std::string& account) const {
  const TimeLimit limit(limits_.operation);
  GError* error = nullptr;
  SecretValue* value = secret_password_lookup_binary_sync(
      schema(), limit.get(), &error, "service", service.c_str(), "account", account.c_str(), nullptr);
  if (report(error)) return {Outcome::failed, std::nullopt};
  if (!value) return {meaningOfNothing(service, account, limit.get()), std::nullopt};
  gsize length = 0;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(secret_value_get(value, &length));
  Found found{Outcome::done, Bytes(bytes, bytes + length)};
  secret_value_unref(value);
  return found;
}

SecretService::Outcome SecretService::write(const std::string& service, const std::string& account,
                                            const Bytes& data) const {
  const TimeLimit limit(limits_.operation);
  GError* error = nullptr;
  SecretValue* value = secret_value_new(reinterpret_cast<const char*>(data.data()),
                                        static_cast<gssize>(data.size()), "application/octet-stream");
  const std::string label = "Kestrune (" + account + ")";
  const bool isStored = secret_password_store_binary_sync(
      schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), value, limit.get(), &error, "service",
      service.c_str(), "account", account.c_str(), nullptr);
  secret_value_unref(value);
  return report(error) || !isStored ? Outcome::failed : Outcome::done;
}

SecretService::Outcome SecretService::remove(const std::string& service, const std::string& account) const {
  const TimeLimit limit(limits_.operation);
  GError* error = nullptr;
  const bool isRemoved = secret_password_clear_sync(schema(), limit.get(), &error, "service", service.c_str(),
                                                    "account", account.c_str(), nullptr);
  if (report(error)) return Outcome::failed;
  return isRemoved ? Outcome::done : meaningOfNothing(service, account, limit.get());
}

}  // namespace kestrune::linux_platform
