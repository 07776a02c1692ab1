#include "platform/linux/desktop/PreferencesStore.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/linux/desktop/JsonPreferences.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

constexpr Logger kLog("App");
constexpr std::size_t kLargestFile = 1 << 20;
/// An editor touches the file several times when it saves.
constexpr std::chrono::milliseconds kSettling = 150ms;
/// For another program's lock where the caller has to have the file now: at the start, and at the end.
constexpr std::chrono::milliseconds kLockPatience = 1s;
/// Doubled with each try that fails.
constexpr std::chrono::milliseconds kFirstRetry = 100ms;
constexpr std::chrono::milliseconds kLongestRetry = 1min;
/// 3 seconds: a holder that keeps the lock for longer is stuck.
constexpr int kTriesBeforeALockIsNews = 5;
/// To write last, while somebody else goes on changing the file.
constexpr int kTriesToFinish = 3;

/// Nothing if there is no file; a null value if it is no JSON object.
std::optional<JsonValue> readFile(const PrivateDirectory& directory) {
  const auto bytes = directory.read(PreferencesStore::kFileName, kLargestFile);
  if (!bytes) return {};
  auto parsed = parseJson({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  return parsed && parsed->object() ? std::move(*parsed) : JsonValue();
}

bool isBroken(const std::optional<JsonValue>& content) {
  return content && !content->object();
}

void setAside(const PrivateDirectory& directory) {
  const std::string aside = directory.setAside(PreferencesStore::kFileName, ".invalid");
  kLog.error("The preferences file is no JSON object; it was set aside as " + aside);
}

}  // namespace

PreferencesStore::PreferencesStore(std::filesystem::path directory,
                                   const std::shared_ptr<SerialQueue>& writer)
    : directory_(std::move(directory)), writer_(writer) {}

void PreferencesStore::load() {
  try {
    const PrivateDirectory directory(directory_);
    auto content = readFile(directory);
    if (isBroken(content)) {
      // Another start of the program may be doing the same.
      const auto locked = directory.lock(kLockPatience);
      content = readFile(directory);
      if (isBroken(content)) {
        setAside(directory);
        return;
      }
    }
    const std::lock_guard guard(lock_);
    if (content) table_.merge(*content->object());
  } catch (const std::exception& error) {
    kLog.error(std::string("The preferences cannot be read: ") + error.what());
  }
}

std::optional<PreferenceValue> PreferencesStore::value(std::string_view key) const {
  const std::lock_guard guard(lock_);
  return table_.value(key);
}

void PreferencesStore::set(std::string_view key, PreferenceValue value) {
  const std::lock_guard guard(lock_);
  if (table_.set(key, std::move(value))) scheduleWrite(JsonPreferences::kWriteDelay);
}

void PreferencesStore::remove(std::string_view key) {
  const std::lock_guard guard(lock_);
  if (table_.remove(key)) scheduleWrite(JsonPreferences::kWriteDelay);
}

void PreferencesStore::observe(std::shared_ptr<SerialQueue> queue, Preferences::ChangeObserver observer) {
  const std::lock_guard guard(lock_);
  queue_ = std::move(queue);
  observer_ = std::make_shared<const Preferences::ChangeObserver>(std::move(observer));
}

void PreferencesStore::fileChanged() {
  const auto writer = writer_.lock();
  const std::lock_guard guard(lock_);
  if (!writer || pendingReload_.isPending()) return;
  pendingReload_ = writer->postAfter(kSettling, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->synchronize();
  });
}

void PreferencesStore::scheduleWrite(Duration delay) {
  const auto writer = writer_.lock();
  if (!writer || pendingWrite_.isPending()) return;
  pendingWrite_ = writer->postAfter(delay, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->synchronize();
  });
}

void PreferencesStore::synchronize() {
  bool isWriting = false;
  {
    const std::lock_guard guard(lock_);
    isWriting = table_.hasUnsavedChanges();
  }
  if (mergeAndWrite(isWriting, false) == Outcome::done) return;
  const std::lock_guard guard(lock_);
  scheduleWrite(JsonPreferences::kWriteDelay);
}

void PreferencesStore::finish() {
  for (int tries = 0; tries < kTriesToFinish; ++tries) {
    {
      const std::lock_guard guard(lock_);
      pendingWrite_.cancel();
      pendingReload_.cancel();
      if (!table_.hasUnsavedChanges()) return;
    }
    if (mergeAndWrite(true, true) == Outcome::done) return;
  }
  kLog.error("The preferences file is being changed by another program; the last changed values are lost");
}

/// Brings the table and the file together. A file that changes while ours is on its way to the disk is read
/// anew.
PreferencesStore::Outcome PreferencesStore::mergeAndWrite(bool isWriting, bool isLast) {
  try {
    const PrivateDirectory directory(directory_);
    UniqueDescriptor locked;
    if (isWriting) locked = directory.lock(isLast ? kLockPatience : 0ms);
    if (isWriting && !locked && !isLast) {
      retryLater("The preferences file is locked by another program; changed values wait until it is free",
                 kTriesBeforeALockIsNews);
      return Outcome::done;
    }
    auto version = directory.version(kFileName);
    auto content = readFile(directory);
    if (isBroken(content) && isLast) {
      setAside(directory);
      version.reset();
      content.reset();
    } else if (isBroken(content)) {
      kLog.error(isWriting ? "The preferences file is no JSON object; a changed value waits until it is one"
                           : "The preferences file is no JSON object and is ignored until it is one");
      return Outcome::done;
    }
    std::vector<std::string> changed;
    std::string text;
    std::uint64_t changeCount = 0;
    {
      const std::lock_guard guard(lock_);
      if (content) changed = table_.merge(*content->object());
      text = table_.text();
      changeCount = table_.changeCount();
    }
    tell(std::move(changed));
    if (!isWriting) return Outcome::done;
    const ByteView bytes{reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
    if (!directory.writeUnlessChanged(kFileName, bytes, version)) return Outcome::tryAgain;
    failedTries_ = 0;
    if (std::exchange(isFailureLogged_, false)) kLog.notice("The preferences file has been written again");
    const std::lock_guard guard(lock_);
    table_.markSaved(changeCount);
  } catch (const std::exception& error) {
    if (isWriting) {
      retryLater(std::string("The preferences cannot be written: ") + error.what(), 1);
    } else {
      kLog.error(std::string("The preferences cannot be read: ") + error.what());
    }
  }
  return Outcome::done;
}

/// The reason is logged once, at the earliest after `newsAt` failed tries in a row.
void PreferencesStore::retryLater(const std::string& reason, int newsAt) {
  constexpr int kMostDoublings = 16;
  const Duration delay = kFirstRetry * (1 << std::min(failedTries_, kMostDoublings));
  if (++failedTries_ >= newsAt && !std::exchange(isFailureLogged_, true)) kLog.error(reason);
  const std::lock_guard guard(lock_);
  scheduleWrite(std::min<Duration>(delay, kLongestRetry));
}

void PreferencesStore::tell(std::vector<std::string> changed) {
  const std::lock_guard guard(lock_);
  if (changed.empty() || !observer_) return;
  queue_->post([observer = observer_, keys = std::move(changed)] { (*observer)(keys); });
}

}  // namespace kestrune::linux_platform
