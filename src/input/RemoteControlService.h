#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "model/RemoteControl.h"
#include "platform/Displays.h"
#include "platform/InputEvents.h"
#include "platform/PrivacyPermissions.h"
#include "runtime/Clock.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Turns what a viewer does on its touchscreen and keyboard into input events of this machine.
///
/// Every operation computes, posts its events back to back and returns; there is no queue, timer or delay.
/// Any thread may call; the order of events between two concurrent callers is not arranged. Coordinates are
/// normalized to the target, (0, 0) at its top left. The result tells the viewer what became of it; the order
/// of the checks is: the numbers or names themselves, enabled, target, trust, event (`pointer` checks its
/// numbers behind the target).
///
/// The left button is the only state that can get stuck: releaseButton() ends it, and runs before every press
/// and whenever the target changes.
class RemoteControlService {
 public:
  RemoteControlService(std::shared_ptr<InputEvents> events, std::shared_ptr<const Displays> displays,
                       std::shared_ptr<PrivacyPermissions> permissions,
                       std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const Clock> clock);

  /// The master switch, off at creation.
  void setEnabled(bool enabled);
  /// What the viewer sees; nothing while nothing is captured that can be controlled. Releases a held button.
  void setTarget(std::optional<RemoteControlTarget> target);

  RemoteTapResult pointer(RemotePointerPhase phase, double x, double y);
  /// Down and, if that succeeded, up at the same point, with no pause.
  RemoteTapResult tap(double x, double y);
  /// `dx` and `dy` are fractions of the target's size; `sensitivity` is 0.25 to 3.0. Stays one point inside
  /// the target.
  RemoteTapResult move(double dx, double dy, double sensitivity);
  /// A whole click where the pointer is.
  RemoteTapResult click(RemoteMouseButton button);
  /// Presses or releases the left button where the pointer is.
  RemoteTapResult setButton(bool down);
  /// Positive is down and right; one unit is 600 pixels, at most 120 pixels a call.
  RemoteTapResult scroll(double dx, double dy);
  /// At most 200 UTF-16 code units, in events of at most 20 that never cut a user-perceived character.
  RemoteTapResult typeText(std::string_view text);
  /// One of the ten named keys: f, return, tab, space, delete, escape, left, right, down, up. Case counts.
  RemoteTapResult pressKey(std::string_view name);
  /// The media key; needs no target.
  RemoteTapResult togglePlayPause();
  /// Lets go of a held left button, silently.
  void releaseButton();

  /// Asks the system, on the main queue and without waiting, to ask the user for the permission to post
  /// events.
  void requestAccessibilityPermission();

  /// Where the pointer is in the target, for the viewer to draw; hidden at (0.5, 0.5) outside it.
  RemoteCursorState cursorState() const;

 private:
  struct State {
    bool isEnabled = false;
    std::optional<RemoteControlTarget> target;
    bool isButtonDown = false;
    std::optional<Point> lastPoint;
  };

  State snapshot() const;
  /// Nothing if events may be posted, with the target in `target`; else why not, having asked for the
  /// permission.
  std::optional<RemoteTapResult> refusal(std::optional<RemoteControlTarget>& target);
  Point referencePosition(const RemoteControlTarget& target, bool prefersLastPoint) const;
  bool postMouse(MouseEventType type, Point position);
  /// One key-down and one key-up with the same text (or none); false if either cannot be made.
  static bool postKey(InputEventSource& source, std::uint16_t code, std::u16string_view text);

  const std::shared_ptr<InputEvents> events_;
  const std::shared_ptr<const Displays> displays_;
  const std::shared_ptr<PrivacyPermissions> permissions_;
  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::shared_ptr<const Clock> clock_;
  mutable std::mutex lock_;  // guards state_; never held while an event is made or posted
  State state_;
};

}  // namespace kestrune
