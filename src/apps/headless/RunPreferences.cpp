#include "RunPreferences.h"

#include <utility>

namespace kestrune {

std::optional<PreferenceValue> RunPreferences::value(std::string_view key) const {
  {
    const std::lock_guard guard(lock_);
    if (const auto found = ofThisRun_.find(key); found != ofThisRun_.end()) return found->second;
  }
  return stored_->value(key);
}

void RunPreferences::set(std::string_view key, PreferenceValue value) {
  {
    const std::lock_guard guard(lock_);
    if (const auto found = ofThisRun_.find(key); found != ofThisRun_.end()) {
      if (found->second == value) return;
      ofThisRun_.erase(found);
    }
  }
  stored_->set(key, std::move(value));
}

void RunPreferences::remove(std::string_view key) {
  {
    const std::lock_guard guard(lock_);
    if (const auto found = ofThisRun_.find(key); found != ofThisRun_.end()) ofThisRun_.erase(found);
  }
  stored_->remove(key);
}

void RunPreferences::observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) {
  stored_->observeExternalChanges(std::move(queue), std::move(observer));
}

}  // namespace kestrune
