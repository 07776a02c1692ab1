#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kestrune {

/// A JSON value (RFC 8259). Objects keep their order; of repeated names the last one is found.
class JsonValue {
 public:
  using Array = std::vector<JsonValue>;
  using Object = std::vector<std::pair<std::string, JsonValue>>;

  JsonValue() = default;  // null
  JsonValue(bool value) : value_(value) {}
  JsonValue(int value) : value_(static_cast<std::int64_t>(value)) {}
  JsonValue(std::int64_t value) : value_(value) {}
  JsonValue(std::uint64_t value) : value_(value) {}
  JsonValue(double value) : value_(value) {}
  JsonValue(const char* value) : value_(std::string(value)) {}
  JsonValue(std::string_view value) : value_(std::string(value)) {}
  JsonValue(std::string value) : value_(std::move(value)) {}
  JsonValue(Array value) : value_(std::move(value)) {}
  JsonValue(Object value) : value_(std::move(value)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  /// Whether it is a number with a fraction or an exponent, or one that no 64-bit integer holds.
  bool isFloat() const { return std::holds_alternative<double>(value_); }
  const std::string* string() const { return std::get_if<std::string>(&value_); }
  const Array* array() const { return std::get_if<Array>(&value_); }
  const Object* object() const { return std::get_if<Object>(&value_); }
  std::optional<bool> boolean() const;
  /// Any JSON number; booleans are none.
  std::optional<double> number() const;
  /// Any JSON number with its fractional part cut off; nothing outside the range of the type.
  std::optional<std::int64_t> integer() const;
  std::optional<std::uint64_t> unsignedInteger() const;
  /// The member of an object; null pointer if absent or if this is no object.
  const JsonValue* find(std::string_view name) const;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Array, Object> value_;
};

/// One JSON text, strict, of at most `maximumDepth` nested containers; nothing if it is not one, or not
/// UTF-8.
std::optional<JsonValue> parseJson(std::string_view text, std::size_t maximumDepth = 32);
/// Compact; floats in the shortest form that reads back the same; a number that JSON has no form for becomes
/// null.
std::string serializeJson(const JsonValue& value);
/// A UTF-8 text as a JSON string with its quotes; invalid sequences become U+FFFD.
std::string quoteJson(std::string_view text);
/// A float in the shortest decimal form that reads back the same, always with a fraction or an exponent
/// ("0.5", "1.0"); "null" if it is not finite.
std::string formatJsonNumber(double value);

}  // namespace kestrune
