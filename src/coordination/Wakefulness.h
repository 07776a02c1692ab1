#pragma once

#include <memory>

#include "platform/Activities.h"
#include "system/SleepAssertion.h"

namespace kestrune {

/// Keeps the machine awake while the program serves viewers, if the user wants it. Main queue only.
class Wakefulness {
 public:
  explicit Wakefulness(std::shared_ptr<Activities> activities) : assertion_(std::move(activities)) {}

  /// `isServing`: the server is up or a stream runs. `isWanted`: the setting.
  void update(bool isServing, bool isWanted) {
    if (isServing && isWanted) {
      assertion_.acquire();
    } else {
      assertion_.release();
    }
  }

 private:
  SleepAssertion assertion_;
};

}  // namespace kestrune
