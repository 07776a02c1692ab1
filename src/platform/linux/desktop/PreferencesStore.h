#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Preferences.h"
#include "platform/linux/desktop/PreferencesTable.h"
#include "platform/linux/files/PrivateDirectory.h"
#include "runtime/SerialQueue.h"

namespace kestrune::linux_platform {

/// The table of JsonPreferences and the file that belongs to it. The table is open to any thread; the file is
/// touched on the writer's queue alone, but for load(). Make it with std::make_shared.
class PreferencesStore final : public std::enable_shared_from_this<PreferencesStore> {
 public:
  static constexpr const char* kFileName = "preferences.json";

  PreferencesStore(std::filesystem::path directory, const std::shared_ptr<SerialQueue>& writer);

  /// Reads the file, before anything else is called. Waits for another program's lock for a second at most.
  void load();
  const std::filesystem::path& directory() const { return directory_; }

  // Any thread; none of them waits for the file.
  std::optional<PreferenceValue> value(std::string_view key) const;
  void set(std::string_view key, PreferenceValue value);
  void remove(std::string_view key);
  void observe(std::shared_ptr<SerialQueue> queue, Preferences::ChangeObserver observer);
  void fileChanged();

  /// On the writer's queue: writes what is not written yet, also where the file is locked or broken.
  void finish();

 private:
  enum class Outcome { done, tryAgain };

  void scheduleWrite(Duration delay);  // under lock_
  void synchronize();
  Outcome mergeAndWrite(bool isWriting, bool isLast);
  void retryLater(const std::string& reason, int newsAt);
  void tell(std::vector<std::string> changed);

  const std::filesystem::path directory_;
  const std::weak_ptr<SerialQueue> writer_;

  mutable std::mutex lock_;  // guards the next five; never held while the file is touched
  PreferencesTable table_;
  DelayedWork pendingWrite_;
  DelayedWork pendingReload_;
  std::shared_ptr<SerialQueue> queue_;
  std::shared_ptr<const Preferences::ChangeObserver> observer_;

  // On the writer's queue:
  int failedTries_ = 0;  // to write, one after the other
  bool isFailureLogged_ = false;
};

}  // namespace kestrune::linux_platform
