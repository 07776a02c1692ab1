#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kestrune {

using PreferenceValue = std::variant<bool, std::int64_t, double, std::string>;

/// The user's stored settings: a flat table of key to value. Writes are durable when they return, or logged
/// when they cannot be. Any thread may call.
class Preferences {
 public:
  virtual ~Preferences() = default;
  virtual std::optional<PreferenceValue> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, PreferenceValue value) = 0;
  virtual void remove(std::string_view key) = 0;
};

}  // namespace kestrune
