#include "platform/linux/desktop/JsonPreferences.h"

#include <future>
#include <string>
#include <thread>
#include <utility>

#include "platform/linux/desktop/FileWatch.h"
#include "platform/linux/desktop/PreferencesStore.h"
#include "platform/linux/files/UserDirectories.h"
#include "runtime/Log.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");

}  // namespace

JsonPreferences::JsonPreferences(std::shared_ptr<Reactor> watching)
    : JsonPreferences(std::move(watching), configHome() / "kestrune") {}

JsonPreferences::JsonPreferences(std::shared_ptr<Reactor> watching, std::filesystem::path directory,
                                 std::shared_ptr<SerialQueue> writer, std::chrono::milliseconds longestFlush)
    : watching_(std::move(watching)),
      longestFlush_(longestFlush),
      writer_(writer ? std::move(writer) : std::make_shared<ThreadQueue>("preferences")),
      store_(std::make_shared<PreferencesStore>(std::move(directory), writer_)) {
  store_->load();
}

JsonPreferences::~JsonPreferences() {
  watch_.reset();
  if (writer_->isCurrent()) {
    store_->finish();
    return;
  }
  std::promise<void> end;
  const auto ended = end.get_future();
  writer_->post([store = store_] { store->finish(); });
  writer_->post([end = std::move(end)]() mutable { end.set_value(); });
  if (ended.wait_for(longestFlush_) == std::future_status::ready) return;
  kLog.error("The disk does not answer; the preferences changed last may be lost");
  std::thread([writer = std::move(writer_)] {}).detach();  // waits for the disk in our place
}

std::optional<PreferenceValue> JsonPreferences::value(std::string_view key) const {
  return store_->value(key);
}

void JsonPreferences::set(std::string_view key, PreferenceValue value) {
  store_->set(key, std::move(value));
}

void JsonPreferences::remove(std::string_view key) {
  store_->remove(key);
}

void JsonPreferences::observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) {
  store_->observe(std::move(queue), std::move(observer));
  const std::weak_ptr<PreferencesStore> weak = store_;
  try {
    watch_ = std::make_unique<FileWatch>(watching_, store_->directory(), PreferencesStore::kFileName, [weak] {
      if (const auto store = weak.lock()) store->fileChanged();
    });
  } catch (const std::exception& error) {
    kLog.error(std::string("Changes of the preferences file cannot be noticed: ") + error.what());
  }
  store_->fileChanged();  // what was changed before the watch stood
}

}  // namespace kestrune::linux_platform
