#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/Preferences.h"

namespace kestrune {

/// Settings in memory.
class FakePreferences final : public Preferences {
 public:
  std::map<std::string, PreferenceValue, std::less<>> values;

  std::optional<PreferenceValue> value(std::string_view key) const override {
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt : std::optional(found->second);
  }
  void set(std::string_view key, PreferenceValue value) override {
    values.insert_or_assign(std::string(key), std::move(value));
  }
  void remove(std::string_view key) override {
    if (const auto found = values.find(key); found != values.end()) values.erase(found);
  }
};

}  // namespace kestrune
