#pragma once

#include <optional>
#include <set>
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
  void markSaved() { unsaved_.clear(); }
  /// The content of the file: one key a line, for people who read it.
  std::string text() const;

 private:
  JsonValue::Object members_;
  std::set<std::string, std::less<>> unsaved_;  // keys; those that are no members were removed
};

}  // namespace kestrune::linux_platform
