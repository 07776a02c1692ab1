#pragma once

#include <chrono>
#include <future>
#include <stdexcept>
#include <utility>

#include "runtime/SerialQueue.h"

namespace kestrune {

/// A promise that may be kept more than once; the first time counts.
template <class Value>
class FirstOutcome {
 public:
  void set(Value value) {
    if (!std::exchange(isSet_, true)) promise_.set_value(std::move(value));
  }
  /// Throws if nothing came within ten seconds.
  Value get() {
    auto future = promise_.get_future();
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      throw std::runtime_error("nothing came");
    }
    return future.get();
  }

 private:
  std::promise<Value> promise_;
  bool isSet_ = false;  // by the one thread that sets
};

/// Runs `body` on the queue and returns when it has run.
template <class Body>
void runOn(SerialQueue& queue, Body body) {
  FirstOutcome<bool> done;
  queue.post([&] {
    body();
    done.set(true);
  });
  done.get();
}

}  // namespace kestrune
