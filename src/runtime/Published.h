#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace kestrune {

/// Keeps an observer registered; dropping it ends the observation. May outlive what it observes.
class Observation {
 public:
  Observation() = default;
  explicit Observation(std::shared_ptr<void> registration) : registration_(std::move(registration)) {}
  void reset() { registration_.reset(); }

 private:
  std::shared_ptr<void> registration_;
};

/// A value that tells its observers, in the order of their registration, that it changed, and only when it
/// did. Confined to its owner's queue (the main queue): reads, writes and notifications all happen there. An
/// observer may write the value again, or end observations, from within its notification.
template <class Value>
class Published {
 public:
  using Observer = std::function<void(const Value&)>;

  Published() = default;
  explicit Published(Value value) : value_(std::move(value)) {}
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;

  const Value& get() const { return value_; }
  const Value& operator*() const { return value_; }
  const Value* operator->() const { return &value_; }
  operator const Value&() const { return value_; }

  Published& operator=(Value value) {
    set(std::move(value));
    return *this;
  }

  void set(Value value) {
    if (value == value_) return;
    value_ = std::move(value);
    notify();
  }

  /// Changes the value in place; observers hear of it only if it differs afterwards.
  template <class Change>
  void update(Change change) {
    Value next = value_;
    change(next);
    set(std::move(next));
  }

  [[nodiscard]] Observation observe(Observer observer) {
    auto registration = std::make_shared<Observer>(std::move(observer));
    observers_.push_back(registration);
    return Observation(registration);
  }

 private:
  void notify() {
    const auto generation = ++generation_;
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                    [](const auto& observer) { return observer.expired(); }),
                     observers_.end());
    const auto snapshot = observers_;
    for (const auto& entry : snapshot) {
      if (auto observer = entry.lock()) (*observer)(value_);
      // An observer wrote again: everyone has already been told of the newer value.
      if (generation != generation_) return;
    }
  }

  Value value_{};
  std::uint64_t generation_ = 0;
  std::vector<std::weak_ptr<Observer>> observers_;
};

}  // namespace kestrune
