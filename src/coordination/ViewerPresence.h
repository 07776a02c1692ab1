#pragma once

#include <functional>
#include <memory>

#include "coordination/TaskSlot.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns whether a viewer is there, and how long its absence is tolerated: encoding goes on for 5 seconds, so
/// that a page that is loaded anew costs no restart of the encoder. Main queue only; owned by a shared_ptr.
class ViewerPresence final : public std::enable_shared_from_this<ViewerPresence> {
 public:
  struct Joints {
    std::function<bool()> isCapturing;
    /// A teardown has forgotten the viewer already: its changes do not count.
    std::function<bool()> isTearingDown;
    /// A viewer has arrived: it starts with no held button and the pointer in the middle.
    std::function<void()> onArrived;
    /// After each arrival and departure.
    std::function<void(bool isPresent)> onChanged;
    /// No viewer for 5 seconds.
    std::function<void()> onEncodingUnneeded;
  };

  ViewerPresence(std::shared_ptr<SerialQueue> mainQueue, Joints joints);

  const Observable<bool>& isConnected() const { return isConnected_; }

  void handleLocalViewerChange(bool connected);
  /// Stops the 5 second timer; encoding stays as it is.
  void cancelEncodingDisable() { encodingDisableTask_.cancelAndForget(); }
  /// The same, and there is no viewer any more; nothing is notified.
  void forget();

 private:
  static Task<void> disableEncodingLater(std::weak_ptr<ViewerPresence> weak);

  const std::shared_ptr<SerialQueue> mainQueue_;
  const Joints joints_;
  Published<bool> isConnected_;
  TaskSlot encodingDisableTask_;
};

}  // namespace kestrune
