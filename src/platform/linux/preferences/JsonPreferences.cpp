#include "platform/linux/preferences/JsonPreferences.h"

#include <chrono>
#include <mutex>
#include <string>
#include <utility>

#include "platform/linux/files/PrivateDirectory.h"
#include "platform/linux/files/UserDirectories.h"
#include "platform/linux/preferences/FileWatch.h"
#include "platform/linux/preferences/PreferencesTable.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
const std::string kFileName = "preferences.json";
constexpr std::size_t kLargestFile = 1 << 20;
/// An editor touches the file several times when it saves.
constexpr std::chrono::milliseconds kSettling{150};

/// Nothing if there is no file; a null value if it is no JSON object.
std::optional<JsonValue> readFile(const PrivateDirectory& directory) {
  const auto bytes = directory.read(kFileName, kLargestFile);
  if (!bytes) return {};
  auto parsed = parseJson({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  return parsed && parsed->object() ? std::move(*parsed) : JsonValue();
}

}  // namespace

/// What the watch and the observer's queue refer to, weakly.
class JsonPreferences::Store final : public std::enable_shared_from_this<Store> {
 public:
  explicit Store(std::filesystem::path directory) : directory_(std::move(directory)) {}

  std::optional<PreferenceValue> value(std::string_view key) const {
    const std::lock_guard guard(lock_);
    return table_.value(key);
  }
  /// `change` returns whether it changed the table.
  template <class Change>
  void change(Change change);
  void load();
  void observe(std::shared_ptr<SerialQueue> queue, ChangeObserver observer);
  void scheduleReload();
  void reload();
  void saveLate();
  const std::filesystem::path& directory() const { return directory_; }

 private:
  bool setAsideIfBroken();
  std::vector<std::string> synchronize();
  void write(const PrivateDirectory& directory);

  const std::filesystem::path directory_;
  mutable std::mutex lock_;  // guards what follows, and orders the reads and writes of the file
  PreferencesTable table_;
  std::shared_ptr<SerialQueue> queue_;
  std::shared_ptr<const ChangeObserver> observer_;
  DelayedWork pendingReload_;
};

void JsonPreferences::Store::load() {
  const std::lock_guard guard(lock_);
  if (setAsideIfBroken()) synchronize();
}

/// Whether the file can be read, or there is none. Under the lock.
bool JsonPreferences::Store::setAsideIfBroken() {
  try {
    const PrivateDirectory directory(directory_);
    const auto locked = directory.lock();
    const auto content = readFile(directory);
    if (!content || content->object()) return true;
    const std::string aside = directory.setAside(kFileName, ".invalid");
    kLog.error("The preferences file is no JSON object; it was set aside as " + aside);
    return true;
  } catch (const std::exception& error) {
    kLog.error(std::string("The preferences cannot be read: ") + error.what());
    return false;
  }
}

/// Brings the table and the file together; returns which values somebody else has changed. Under the lock.
std::vector<std::string> JsonPreferences::Store::synchronize() {
  const bool isWriting = table_.hasUnsavedChanges();
  std::vector<std::string> changed;
  try {
    const PrivateDirectory directory(directory_);
    const auto locked = directory.lock();
    if (auto content = readFile(directory)) {
      if (!content->object()) {
        kLog.error(isWriting ? "The preferences file is no JSON object; a changed value waits until it is one"
                             : "The preferences file is no JSON object and is ignored until it is one");
        return {};
      }
      changed = table_.merge(*content->object());
    }
    if (isWriting) write(directory);
  } catch (const std::exception& error) {
    kLog.error(std::string("The preferences cannot be ") + (isWriting ? "written: " : "read: ") +
               error.what());
  }
  return changed;
}

void JsonPreferences::Store::write(const PrivateDirectory& directory) {
  const std::string text = table_.text();
  directory.write(kFileName, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  table_.markSaved();
}

template <class Change>
void JsonPreferences::Store::change(Change change) {
  const std::lock_guard guard(lock_);
  if (!change(table_)) return;
  auto changed = synchronize();
  if (changed.empty() || !observer_) return;
  queue_->post([observer = observer_, keys = std::move(changed)] { (*observer)(keys); });
}

void JsonPreferences::Store::observe(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) {
  const std::lock_guard guard(lock_);
  queue_ = std::move(queue);
  observer_ = std::make_shared<const ChangeObserver>(std::move(observer));
}

void JsonPreferences::Store::scheduleReload() {
  const std::lock_guard guard(lock_);
  if (!queue_ || pendingReload_.isPending()) return;
  pendingReload_ = queue_->postAfter(kSettling, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->reload();
  });
}

void JsonPreferences::Store::reload() {
  std::vector<std::string> changed;
  std::shared_ptr<const ChangeObserver> observer;
  {
    const std::lock_guard guard(lock_);
    changed = synchronize();
    observer = observer_;
  }
  if (!changed.empty() && observer) (*observer)(changed);
}

void JsonPreferences::Store::saveLate() {
  const std::lock_guard guard(lock_);
  if (table_.hasUnsavedChanges() && setAsideIfBroken()) synchronize();
}

JsonPreferences::JsonPreferences() : JsonPreferences(configHome() / "kestrune") {}

JsonPreferences::JsonPreferences(std::filesystem::path directory)
    : store_(std::make_shared<Store>(std::move(directory))) {
  store_->load();
}

JsonPreferences::~JsonPreferences() {
  watch_.reset();
  store_->saveLate();
}

std::optional<PreferenceValue> JsonPreferences::value(std::string_view key) const {
  return store_->value(key);
}

void JsonPreferences::set(std::string_view key, PreferenceValue value) {
  store_->change([&](PreferencesTable& table) { return table.set(key, std::move(value)); });
}

void JsonPreferences::remove(std::string_view key) {
  store_->change([&](PreferencesTable& table) { return table.remove(key); });
}

void JsonPreferences::observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) {
  store_->observe(std::move(queue), std::move(observer));
  const std::weak_ptr<Store> weak = store_;
  try {
    watch_ = std::make_unique<FileWatch>(store_->directory(), kFileName, [weak] {
      if (const auto store = weak.lock()) store->scheduleReload();
    });
  } catch (const std::exception& error) {
    kLog.error(std::string("Changes of the preferences file cannot be noticed: ") + error.what());
  }
  store_->scheduleReload();  // what was changed before the watch stood
}

}  // namespace kestrune::linux_platform
