#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Preferences.h"

namespace kestrune {

/// The user's preferences with some values of this run's own in front of them, which are never stored. A key
/// of this run that is set to another value is the user's again from then on.
class RunPreferences final : public Preferences {
 public:
  using Values = std::map<std::string, PreferenceValue, std::less<>>;

  RunPreferences(std::shared_ptr<Preferences> stored, Values ofThisRun)
      : stored_(std::move(stored)), ofThisRun_(std::move(ofThisRun)) {}

  std::optional<PreferenceValue> value(std::string_view key) const override;
  void set(std::string_view key, PreferenceValue value) override;
  void remove(std::string_view key) override;
  /// What is stored under a key of this run meanwhile holds from the next launch on.
  void observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) override;

 private:
  const std::shared_ptr<Preferences> stored_;
  mutable std::mutex lock_;  // guards ofThisRun_
  Values ofThisRun_;
};

}  // namespace kestrune
