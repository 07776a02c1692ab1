#include "platform/linux/preferences/JsonPreferences.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/linux/files/PrivateDirectory.h"
#include "platform/linux/files/UserDirectories.h"
#include "platform/support/Json.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
const std::string kFileName = "preferences.json";
constexpr std::size_t kLargestFile = 1 << 20;

std::optional<PreferenceValue> preferenceValue(const JsonValue& value) {
  if (const auto flag = value.boolean()) return *flag;
  if (const auto* text = value.string()) return *text;
  if (!value.isFloat()) {
    if (const auto whole = value.integer()) return *whole;
  }
  if (const auto number = value.number()) return *number;
  return {};
}

/// One key a line, for people who read the file.
std::string serialize(const JsonValue::Object& members) {
  std::string text = "{";
  for (const auto& [key, value] : members) {
    text.append(text.size() == 1 ? "\n  " : ",\n  ");
    text.append(quoteJson(key)).append(": ").append(serializeJson(value));
  }
  return text.append("\n}\n");
}

}  // namespace

struct JsonPreferences::Table {
  JsonValue::Object members;
};

JsonPreferences::JsonPreferences() : JsonPreferences(configHome() / "kestrune") {}

JsonPreferences::JsonPreferences(std::filesystem::path directory)
    : directory_(std::move(directory)), table_(std::make_unique<Table>()) {
  try {
    load();
  } catch (const std::exception& error) {
    kLog.error(std::string("The preferences cannot be read: ") + error.what());
  }
}

JsonPreferences::~JsonPreferences() = default;

void JsonPreferences::load() {
  const PrivateDirectory directory(directory_);
  const auto bytes = directory.read(kFileName, kLargestFile);
  if (!bytes) return;
  const auto parsed = parseJson({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  if (parsed && parsed->object()) {
    table_->members = *parsed->object();
    return;
  }
  const std::string aside = directory.setAside(kFileName, ".invalid");
  kLog.error("The preferences file is no JSON object; it was set aside as " + aside);
}

void JsonPreferences::store() const {
  try {
    const std::string text = serialize(table_->members);
    const PrivateDirectory directory(directory_);
    const auto locked = directory.lock();
    directory.write(kFileName, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  } catch (const std::exception& error) {
    kLog.error(std::string("The preferences cannot be written: ") + error.what());
  }
}

std::optional<PreferenceValue> JsonPreferences::value(std::string_view key) const {
  std::lock_guard guard(lock_);
  for (auto member = table_->members.rbegin(); member != table_->members.rend(); ++member) {
    if (member->first == key) return preferenceValue(member->second);
  }
  return {};
}

void JsonPreferences::set(std::string_view key, PreferenceValue value) {
  const JsonValue changed = std::visit([](auto& held) { return JsonValue(std::move(held)); }, value);
  std::lock_guard guard(lock_);
  auto& members = table_->members;
  const auto isKey = [&](const auto& member) { return member.first == key; };
  const auto first = std::find_if(members.begin(), members.end(), isKey);
  if (first == members.end()) {
    members.emplace_back(key, changed);
  } else {
    const bool isRepeated = std::any_of(std::next(first), members.end(), isKey);
    if (!isRepeated && serializeJson(first->second) == serializeJson(changed)) return;
    first->second = changed;
    members.erase(std::remove_if(std::next(first), members.end(), isKey), members.end());
  }
  store();
}

void JsonPreferences::remove(std::string_view key) {
  std::lock_guard guard(lock_);
  if (std::erase_if(table_->members, [&](const auto& member) { return member.first == key; }) > 0) store();
}

}  // namespace kestrune::linux_platform
