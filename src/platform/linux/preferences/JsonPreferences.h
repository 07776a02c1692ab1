#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/Preferences.h"

namespace kestrune::linux_platform {

/// The preferences as one flat JSON object in `directory`/preferences.json, mode 0600, replaced in one step
/// at each change. Read once, at construction. Keys and values that the program does not know are kept. A
/// file that is no JSON object is set aside as preferences.json.invalid, with a line in the log. Where the
/// file cannot be read or written, that is logged and the values live as long as the process.
class JsonPreferences final : public Preferences {
 public:
  /// The default is $XDG_CONFIG_HOME/kestrune.
  JsonPreferences();
  explicit JsonPreferences(std::filesystem::path directory);
  ~JsonPreferences() override;

  std::optional<PreferenceValue> value(std::string_view key) const override;
  void set(std::string_view key, PreferenceValue value) override;
  void remove(std::string_view key) override;

 private:
  struct Table;

  void load();
  void store() const;

  const std::filesystem::path directory_;
  mutable std::mutex lock_;  // guards the table and orders the writes of the file
  std::unique_ptr<Table> table_;
};

}  // namespace kestrune::linux_platform
