#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Preferences.h"
#include "platform/support/Json.h"

namespace kestrune::linux_platform {

/// The members of the preferences file, and which of them have been changed here since they were last read or
/// written. Members that the program does not know are kept. No thread safety of its own.
class PreferencesTable {
 public:
  std::optional<PreferenceValue> value(std::string_view key) const;
  /// Both return whether anything changed.
  bool set(std::string_view key, PreferenceValue value);
  bool remove(std::string_view key);

  /// Takes what the file holds now, with the unsaved changes on top, and returns the keys whose value is
  /// another one by that.
  std::vector<std::string> merge(JsonValue::Object members);
  bool hasUnsavedChanges() const { return !unsaved_.empty(); }
  /// Counts the changes made here.
  std::uint64_t changeCount() const { return changeCount_; }
  /// The table has been written as it was when changeCount() was `count`.
  void markSaved(std::uint64_t count);
  /// The content of the file: one key a line, for people who read it.
  std::string text() const;

 private:
  void noteChange(std::string_view key);

  JsonValue::Object members_;
  // Key to the number of its newest change; a key that is no member was removed.
  std::map<std::string, std::uint64_t, std::less<>> unsaved_;
  std::uint64_t changeCount_ = 0;
};

}  // namespace kestrune::linux_platform
