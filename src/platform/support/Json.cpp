#include "platform/support/Json.h"

#include <array>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <cmath>
#include <limits>

#include "platform/support/Encoding.h"

namespace kestrune {
namespace {

namespace json = boost::json;

/// Builds the value while the text is read. Numbers are kept as text until their end and read by from_chars,
/// which rounds correctly where the parser's own value may be off by some units in the last place.
class Builder {
 public:
  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_key_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_string_size = std::numeric_limits<std::size_t>::max();

  using Text = json::string_view;
  using Code = json::error_code;

  JsonValue take() { return std::move(root_); }

  bool on_document_begin(Code&) { return true; }
  bool on_document_end(Code&) { return true; }
  bool on_object_begin(Code&) {
    open_.push_back({JsonValue::Object(), true, {}});
    return true;
  }
  bool on_object_end(std::size_t, Code&) { return close(); }
  bool on_array_begin(Code&) {
    open_.push_back({JsonValue::Array(), false, {}});
    return true;
  }
  bool on_array_end(std::size_t, Code&) { return close(); }
  bool on_key_part(Text text, std::size_t, Code&) { return append(text); }
  bool on_key(Text text, std::size_t, Code&) {
    append(text);
    open_.back().key = std::exchange(text_, {});
    return true;
  }
  bool on_string_part(Text text, std::size_t, Code&) { return append(text); }
  bool on_string(Text text, std::size_t, Code&) {
    append(text);
    return add(std::exchange(text_, {}));
  }
  bool on_number_part(Text text, Code&) { return append(text); }
  bool on_int64(std::int64_t value, Text, Code&) {
    text_.clear();
    return add(value);
  }
  bool on_uint64(std::uint64_t value, Text, Code&) {
    text_.clear();
    return add(value);
  }
  bool on_double(double approximate, Text text, Code& error) {
    append(text);
    const std::string digits = std::exchange(text_, {});
    double value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
      if (std::fabs(approximate) >= 1) {
        error = json::error::exponent_overflow;
        return false;
      }
      value = 0;
    }
    return add(value);
  }
  bool on_bool(bool value, Code&) { return add(value); }
  bool on_null(Code&) { return add(JsonValue()); }
  bool on_comment_part(Text, Code&) { return true; }
  bool on_comment(Text, Code&) { return true; }

 private:
  struct Container {
    std::variant<JsonValue::Array, JsonValue::Object> members;
    bool isObject;
    std::string key;
  };

  bool append(Text text) {
    text_.append(text.data(), text.size());
    return true;
  }
  bool close() {
    auto container = std::move(open_.back());
    open_.pop_back();
    if (container.isObject) return add(std::move(std::get<JsonValue::Object>(container.members)));
    return add(std::move(std::get<JsonValue::Array>(container.members)));
  }
  bool add(JsonValue value) {
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (auto& top = open_.back(); top.isObject) {
      std::get<JsonValue::Object>(top.members).emplace_back(std::exchange(top.key, {}), std::move(value));
    } else {
      std::get<JsonValue::Array>(top.members).push_back(std::move(value));
    }
    return true;
  }

  JsonValue root_;
  std::vector<Container> open_;
  std::string text_;  // of the string, key or number that is being read
};

template <class Integer>
std::optional<Integer> truncated(double value) {
  // Both limits as powers of two, which a double holds exactly.
  constexpr double above = std::is_signed_v<Integer> ? 0x1p63 : 0x1p64;
  constexpr double lowest = std::is_signed_v<Integer> ? -0x1p63 : 0.0;
  const double whole = std::trunc(value);
  if (!(whole >= lowest && whole < above)) return {};
  return static_cast<Integer>(whole);
}

void write(const JsonValue& value, std::string& out) {
  if (const auto* object = value.object()) {
    out.push_back('{');
    for (const auto& [name, member] : *object) {
      if (out.back() != '{') out.push_back(',');
      out.append(quoteJson(name)).push_back(':');
      write(member, out);
    }
    out.push_back('}');
  } else if (const auto* array = value.array()) {
    out.push_back('[');
    for (const auto& member : *array) {
      if (&member != array->data()) out.push_back(',');
      write(member, out);
    }
    out.push_back(']');
  } else if (const auto* text = value.string()) {
    out.append(quoteJson(*text));
  } else if (const auto flag = value.boolean()) {
    out.append(*flag ? "true" : "false");
  } else if (value.isNull()) {
    out.append("null");
  } else if (value.isFloat()) {
    out.append(formatJsonNumber(*value.number()));
  } else if (const auto integer = value.integer()) {
    out.append(std::to_string(*integer));
  } else {
    out.append(std::to_string(*value.unsignedInteger()));
  }
}

}  // namespace

std::optional<bool> JsonValue::boolean() const {
  if (const auto* flag = std::get_if<bool>(&value_)) return *flag;
  return {};
}

std::optional<double> JsonValue::number() const {
  if (const auto* real = std::get_if<double>(&value_)) return *real;
  if (const auto* whole = std::get_if<std::int64_t>(&value_)) return static_cast<double>(*whole);
  if (const auto* whole = std::get_if<std::uint64_t>(&value_)) return static_cast<double>(*whole);
  return {};
}

std::optional<std::int64_t> JsonValue::integer() const {
  if (const auto* whole = std::get_if<std::int64_t>(&value_)) return *whole;
  if (const auto* real = std::get_if<double>(&value_)) return truncated<std::int64_t>(*real);
  if (const auto* whole = std::get_if<std::uint64_t>(&value_); whole && std::in_range<std::int64_t>(*whole)) {
    return static_cast<std::int64_t>(*whole);
  }
  return {};
}

std::optional<std::uint64_t> JsonValue::unsignedInteger() const {
  if (const auto* whole = std::get_if<std::uint64_t>(&value_)) return *whole;
  if (const auto* real = std::get_if<double>(&value_)) return truncated<std::uint64_t>(*real);
  if (const auto* whole = std::get_if<std::int64_t>(&value_); whole && *whole >= 0) {
    return static_cast<std::uint64_t>(*whole);
  }
  return {};
}

const JsonValue* JsonValue::find(std::string_view name) const {
  const auto* members = object();
  if (!members) return nullptr;
  for (auto member = members->rbegin(); member != members->rend(); ++member) {
    if (member->first == name) return &member->second;
  }
  return nullptr;
}

std::optional<JsonValue> parseJson(std::string_view text, std::size_t maximumDepth) {
  json::parse_options options;
  options.max_depth = maximumDepth;
  json::basic_parser<Builder> parser(options);
  json::error_code error;
  const std::size_t consumed = parser.write_some(false, text.data(), text.size(), error);
  if (error || consumed != text.size() || !parser.done()) return {};
  return parser.handler().take();
}

std::string serializeJson(const JsonValue& value) {
  std::string out;
  write(value, out);
  return out;
}

std::string quoteJson(std::string_view text) {
  if (isValidUtf8(text)) return json::serialize(json::string_view(text.data(), text.size()));
  return json::serialize(json::string_view(replacingInvalidUtf8(text)));
}

std::string formatJsonNumber(double value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 40> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  std::string text(digits.data(), result.ptr);
  if (text.find_first_of(".e") == std::string::npos) text.append(".0");
  return text;
}

}  // namespace kestrune
