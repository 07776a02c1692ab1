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

/// The reading side of a published value: anyone on the owner's queue (the main queue) may read and observe
/// it. Observers are called in the order of their registration, when the value has changed and only then. An
/// observer may end observations, or have the owner write again, from within its notification.
template <class Value>
class Observable {
 public:
  using Observer = std::function<void(const Value&)>;

  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;

  const Value& get() const { return value_; }
  const Value& operator*() const { return value_; }
  const Value* operator->() const { return &value_; }
  operator const Value&() const { return value_; }

  [[nodiscard]] Observation observe(Observer observer) const {
    auto registration = std::make_shared<Observer>(std::move(observer));
    observers_.push_back(registration);
    return Observation(registration);
  }

 protected:
  Observable() = default;
  explicit Observable(Value value) : value_(std::move(value)) {}
  ~Observable() = default;

  void setAndNotify(Value value) {
    if (value == value_) return;
    value_ = std::move(value);
    const auto generation = ++generation_;
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                    [](const auto& observer) { return observer.expired(); }),
                     observers_.end());
    const auto snapshot = observers_;
    for (const auto& entry : snapshot) {
      if (auto observer = entry.lock()) (*observer)(value_);
      // An observer wrote again: every observer has the newer value already.
      if (generation != generation_) return;
    }
  }

 private:
  Value value_{};
  std::uint64_t generation_ = 0;
  mutable std::vector<std::weak_ptr<Observer>> observers_;
};

/// The writing side, held by the one owner of the value. Confined to the owner's queue.
template <class Value>
class Published final : public Observable<Value> {
 public:
  Published() = default;
  explicit Published(Value value) : Observable<Value>(std::move(value)) {}

  Published& operator=(Value value) {
    set(std::move(value));
    return *this;
  }

  void set(Value value) { this->setAndNotify(std::move(value)); }

  /// Changes the value in place; observers are notified only if it differs afterwards.
  template <class Change>
  void update(Change change) {
    Value next = this->get();
    change(next);
    set(std::move(next));
  }
};

}  // namespace kestrune
