#include "platform/linux/desktop/PreferencesTable.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kestrune::linux_platform {
namespace {

std::optional<PreferenceValue> preferenceValue(const JsonValue& value) {
  if (const auto flag = value.boolean()) return *flag;
  if (const auto* text = value.string()) return *text;
  if (!value.isFloat()) {
    if (const auto whole = value.integer()) return *whole;
  }
  if (const auto number = value.number()) return *number;
  return {};
}

auto isNamed(std::string_view key) {
  return [key](const auto& member) { return member.first == key; };
}

/// Of repeated keys the last one counts.
const JsonValue* find(const JsonValue::Object& members, std::string_view key) {
  const auto found = std::find_if(members.rbegin(), members.rend(), isNamed(key));
  return found == members.rend() ? nullptr : &found->second;
}

/// In the place of the key's first mention, else at the end.
void assign(JsonValue::Object& members, std::string_view key, const JsonValue& value) {
  const auto first = std::find_if(members.begin(), members.end(), isNamed(key));
  if (first == members.end()) {
    members.emplace_back(key, value);
    return;
  }
  first->second = value;
  members.erase(std::remove_if(std::next(first), members.end(), isNamed(key)), members.end());
}

std::map<std::string, std::string> valuesAsText(const JsonValue::Object& members) {
  std::map<std::string, std::string> values;
  for (const auto& [key, value] : members) values[key] = serializeJson(value);
  return values;
}

}  // namespace

std::optional<PreferenceValue> PreferencesTable::value(std::string_view key) const {
  const JsonValue* found = find(members_, key);
  return found ? preferenceValue(*found) : std::nullopt;
}

bool PreferencesTable::set(std::string_view key, PreferenceValue value) {
  const JsonValue changed = std::visit([](auto& held) { return JsonValue(std::move(held)); }, value);
  const JsonValue* present = find(members_, key);
  if (present && serializeJson(*present) == serializeJson(changed)) return false;
  assign(members_, key, changed);
  noteChange(key);
  return true;
}

bool PreferencesTable::remove(std::string_view key) {
  if (std::erase_if(members_, isNamed(key)) == 0) return false;
  noteChange(key);
  return true;
}

void PreferencesTable::noteChange(std::string_view key) {
  unsaved_.insert_or_assign(std::string(key), ++changeCount_);
}

void PreferencesTable::markSaved(std::uint64_t count) {
  std::erase_if(unsaved_, [count](const auto& entry) { return entry.second <= count; });
}

std::vector<std::string> PreferencesTable::merge(JsonValue::Object members) {
  for (const auto& [key, change] : unsaved_) {
    if (const JsonValue* mine = find(members_, key)) {
      assign(members, key, *mine);
    } else {
      std::erase_if(members, isNamed(key));
    }
  }
  const auto before = valuesAsText(members_);
  auto now = valuesAsText(members);
  members_ = std::move(members);

  std::vector<std::string> changed;
  for (const auto& [key, text] : before) {
    const auto same = now.find(key);
    if (same == now.end() || same->second != text) changed.push_back(key);
    if (same != now.end()) now.erase(same);
  }
  for (const auto& [key, text] : now) changed.push_back(key);
  return changed;
}

std::string PreferencesTable::text() const {
  std::string text = "{";
  for (const auto& [key, value] : members_) {
    text.append(text.size() == 1 ? "\n  " : ",\n  ");
    text.append(quoteJson(key)).append(": ").append(serializeJson(value));
  }
  return text.append("\n}\n");
}

}  // namespace kestrune::linux_platform
