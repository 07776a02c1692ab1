#pragma once

#include <chrono>
#include <filesystem>
#include <memory>

#include "platform/Preferences.h"

namespace kestrune::linux_platform {

class FileWatch;
class PreferencesStore;
class Reactor;

/// The preferences as one flat JSON object in `directory`/preferences.json, mode 0600, replaced in one step.
/// Keys and values that the program does not know are kept. Where the file cannot be read or written, that is
/// logged, the values live as long as the process, and the writing is tried again from time to time.
///
/// The file is read at construction; from then on it is read and written on a queue of its own, so that a
/// slow disk blocks no other thread. A change is written kWriteDelay later, together with those that came
/// meanwhile; what somebody else writes before that is merged. Destruction writes what is left and waits for
/// it, kLongestFlush at most.
///
/// A file that is no JSON object at construction is set aside as preferences.json.invalid, with a line in the
/// log. Later it is taken for the work of somebody who is not done yet: it stays as it is, the present values
/// go on, and what is set meanwhile is written as soon as the file can be read again, or else when the
/// preferences end, with the file set aside.
class JsonPreferences final : public Preferences {
 public:
  static constexpr std::chrono::milliseconds kWriteDelay{50};
  static constexpr std::chrono::seconds kLongestFlush{3};

  /// In $XDG_CONFIG_HOME/kestrune.
  explicit JsonPreferences(std::shared_ptr<Reactor> watching);
  /// `watching` waits for changes of the file, and never for the disk. `writer` is the queue that touches the
  /// file; by default one with a thread of its own.
  JsonPreferences(std::shared_ptr<Reactor> watching, std::filesystem::path directory,
                  std::shared_ptr<SerialQueue> writer = nullptr,
                  std::chrono::milliseconds longestFlush = kLongestFlush);
  ~JsonPreferences() override;

  std::optional<PreferenceValue> value(std::string_view key) const override;
  void set(std::string_view key, PreferenceValue value) override;
  void remove(std::string_view key) override;
  void observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) override;

 private:
  const std::shared_ptr<Reactor> watching_;
  const std::chrono::milliseconds longestFlush_;
  std::shared_ptr<SerialQueue> writer_;
  const std::shared_ptr<PreferencesStore> store_;
  std::unique_ptr<FileWatch> watch_;
};

}  // namespace kestrune::linux_platform
