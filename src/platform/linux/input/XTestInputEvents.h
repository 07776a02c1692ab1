#pragma once

#include <memory>

#include "platform/InputEvents.h"
#include "platform/linux/x11/X11Server.h"
#include "runtime/Clock.h"

namespace kestrune::linux_platform {

class InputInjector;

/// Input injection into an X server over XTEST.
///
/// A thread ("x11-input") sends what is posted, in that order: the server may be slow, and text may have to
/// wait for a key code. Of events that wait, 2048 at most, moves of the pointer give way first and releases
/// never (InputBacklog). The position of the pointer is asked for on that thread, too.
///
/// Pixel scrolling is collected until it makes a step of the wheel (kPixelsPerStep); a change of direction
/// begins anew. Key codes that were borrowed for characters outside the user's layout are given back when
/// typing has paused, and at destruction, which also releases what is held and drops what waits. What a
/// process that died held or borrowed is released and given back by the next one (InputJournal).
class XTestInputEvents final : public InputEvents {
 public:
  static constexpr int kPixelsPerStep = 40;

  /// Connects at once, and again after the server went away; while it cannot, createSource() gives null.
  explicit XTestInputEvents(std::shared_ptr<const X11Server> server,
                            std::shared_ptr<const Clock> clock = systemClock());
  ~XTestInputEvents() override;

  std::unique_ptr<InputEventSource> createSource() override;
  std::optional<Point> cursorLocation() override;
  std::unique_ptr<InputEvent> systemDefinedEvent(const SystemDefinedEvent& description) override;

 private:
  const std::shared_ptr<InputInjector> injector_;
};

}  // namespace kestrune::linux_platform
