#pragma once

#include <memory>

#include "platform/Activities.h"

namespace kestrune {

/// Keeps the machine and its displays from sleeping while it is held; gone with the object. Main queue only.
class SleepAssertion {
 public:
  explicit SleepAssertion(std::shared_ptr<Activities> activities);

  /// Nothing happens if it is held already.
  void acquire();
  /// Nothing happens if it is not held.
  void release();

 private:
  const std::shared_ptr<Activities> activities_;
  std::unique_ptr<Activity> activity_;  // present while held
};

}  // namespace kestrune
