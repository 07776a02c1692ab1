#pragma once

#include <functional>
#include <memory>

#include "runtime/SerialQueue.h"

namespace kestrune {

/// Tells that the machine has woken from sleep.
class WakeNotifications {
 public:
  virtual ~WakeNotifications() = default;
  /// `handler` is called on `queue` after every wake. Once. After destruction it is not called again, save
  /// for a call that already waits in its queue.
  virtual void start(std::shared_ptr<SerialQueue> queue, std::function<void()> handler) = 0;
};

}  // namespace kestrune
