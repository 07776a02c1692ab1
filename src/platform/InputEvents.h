#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/Geometry.h"

namespace kestrune {

enum class MouseEventType {
  leftDown = 1,
  leftUp = 2,
  rightDown = 3,
  rightUp = 4,
  moved = 5,
  leftDragged = 6,
};

enum class MouseButton : std::uint32_t { left = 0, right = 1 };

/// An event that was made and not yet posted.
class InputEvent {
 public:
  virtual ~InputEvent() = default;
  /// Makes a keyboard event carry this text (UTF-16) in place of what its key code would give.
  virtual void setUnicodeString(std::u16string_view text) = 0;
  /// Injects the event into the system as if it came from hardware. Does not wait for the system; events of
  /// one thread keep their order.
  virtual void post() = 0;
};

/// Makes events for one operation. Every maker gives null where the system refuses.
class InputEventSource {
 public:
  virtual ~InputEventSource() = default;
  virtual std::unique_ptr<InputEvent> mouseEvent(MouseEventType type, Point position, MouseButton button) = 0;
  /// Two wheels in pixels; positive is up for wheel1 and left for wheel2.
  virtual std::unique_ptr<InputEvent> scrollEvent(std::int32_t wheel1, std::int32_t wheel2) = 0;
  /// `keyCode` is a virtual key code of the key table, or 0 for an event that carries text.
  virtual std::unique_ptr<InputEvent> keyboardEvent(std::uint16_t keyCode, bool isDown) = 0;
};

/// A system-defined event, such as a media key.
struct SystemDefinedEvent {
  int type = 14;
  Point location;
  std::uint64_t modifierFlags = 0;
  double timestamp = 0;  // seconds of system uptime
  int windowNumber = 0;
  std::int16_t subtype = 0;
  std::int64_t data1 = 0;
  std::int64_t data2 = 0;
};

/// Input injection. Any thread may call; each operation is safe against others at the same time, and none
/// waits for the system.
class InputEvents {
 public:
  virtual ~InputEvents() = default;
  /// A source on the state of the hardware (kCGEventSourceStateHIDSystemState); null where there is none.
  virtual std::unique_ptr<InputEventSource> createSource() = 0;
  /// The newest known position of the pointer in global points: where posted events have put it, or what the
  /// system last told. Each call asks the system for a newer one; nothing if none is known.
  virtual std::optional<Point> cursorLocation() = 0;
  /// Null where the system cannot make it.
  virtual std::unique_ptr<InputEvent> systemDefinedEvent(const SystemDefinedEvent& description) = 0;
};

}  // namespace kestrune
