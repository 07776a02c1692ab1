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
  void observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) override {
    queue_ = std::move(queue);
    observer_ = std::move(observer);
  }

  /// What somebody with an editor does; nothing removes the key.
  void edit(const std::map<std::string, std::optional<PreferenceValue>>& changes) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : changes) {
      keys.push_back(key);
      value ? set(key, *value) : remove(key);
    }
    queue_->post([this, keys] { observer_(keys); });
  }

 private:
  std::shared_ptr<SerialQueue> queue_;
  ChangeObserver observer_;
};

}  // namespace kestrune
