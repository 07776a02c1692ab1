#pragma once

#include <memory>
#include <string>

#include "platform/InputEvents.h"
#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// Input injection into an X server over XTEST.
///
/// Pointer and named keys are written to the server within post(). Text may have to wait for a key code, so
/// it is typed on a thread of its own ("x11-input"), and what is posted meanwhile queues up behind it:
/// everything reaches the server in the order in which it was posted. At most kMostWaiting events wait; a
/// flood beyond that is dropped.
///
/// Pixel scrolling is collected until it makes a step of the wheel (kPixelsPerStep); a change of direction
/// begins anew. Key codes that were lent to characters outside the user's layout are given back when typing
/// has paused, and at destruction, which waits for the event that is being sent and drops those that wait.
/// Any thread may call.
class XTestInputEvents final : public InputEvents {
 public:
  static constexpr int kPixelsPerStep = 40;
  static constexpr int kMostWaiting = 2048;

  /// An empty name means the DISPLAY of the environment. Connects when first used, and again after the server
  /// went away; while it cannot, createSource() gives null.
  explicit XTestInputEvents(std::string displayName = {}, std::shared_ptr<const Clock> clock = systemClock());
  ~XTestInputEvents() override;

  std::unique_ptr<InputEventSource> createSource() override;
  /// Nothing while text is being typed: what waits behind it may move the pointer.
  std::optional<Point> cursorLocation() override;
  std::unique_ptr<InputEvent> systemDefinedEvent(const SystemDefinedEvent& description) override;

  class Injector;

 private:
  std::shared_ptr<Injector> injector_;
};

}  // namespace kestrune::linux_platform
