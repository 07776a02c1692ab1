#pragma once

#include <filesystem>
#include <memory>

#include "platform/Preferences.h"

namespace kestrune::linux_platform {

class FileWatch;

/// The preferences as one flat JSON object in `directory`/preferences.json, mode 0600, replaced in one step
/// at each change. Keys and values that the program does not know are kept. Where the file cannot be read or
/// written, that is logged and the values live as long as the process.
///
/// A file that is no JSON object at construction is set aside as preferences.json.invalid, with a line in the
/// log. Later it is taken for the work of somebody who is not done yet: it stays as it is, the present values
/// go on, and what is set meanwhile is written as soon as the file can be read again, or else when the
/// preferences end, with the file set aside.
class JsonPreferences final : public Preferences {
 public:
  /// The default is $XDG_CONFIG_HOME/kestrune.
  JsonPreferences();
  explicit JsonPreferences(std::filesystem::path directory);
  ~JsonPreferences() override;

  std::optional<PreferenceValue> value(std::string_view key) const override;
  void set(std::string_view key, PreferenceValue value) override;
  void remove(std::string_view key) override;
  void observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) override;

 private:
  class Store;

  const std::shared_ptr<Store> store_;
  std::unique_ptr<FileWatch> watch_;
};

}  // namespace kestrune::linux_platform
