#include "input/RemoteControlService.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "input/ControlTargetMapping.h"

namespace kestrune {
namespace {

constexpr double kLowestSensitivity = 0.25;
constexpr double kHighestSensitivity = 3.0;
constexpr double kScrollPixelsPerUnit = 600.0;
constexpr double kMostScrollPixels = 120.0;

std::int32_t wheelPixels(double delta) {
  return static_cast<std::int32_t>(
      std::trunc(std::clamp(delta * -kScrollPixelsPerUnit, -kMostScrollPixels, kMostScrollPixels)));
}

}  // namespace

RemoteControlService::RemoteControlService(std::shared_ptr<InputEvents> events,
                                           std::shared_ptr<const Displays> displays,
                                           std::shared_ptr<PrivacyPermissions> permissions,
                                           std::shared_ptr<SerialQueue> mainQueue,
                                           std::shared_ptr<const Clock> clock)
    : events_(std::move(events)),
      displays_(std::move(displays)),
      permissions_(std::move(permissions)),
      mainQueue_(std::move(mainQueue)),
      clock_(std::move(clock)) {}

RemoteControlService::State RemoteControlService::snapshot() const {
  std::lock_guard guard(lock_);
  return state_;
}

void RemoteControlService::setEnabled(bool enabled) {
  std::lock_guard guard(lock_);
  state_.isEnabled = enabled;
}

void RemoteControlService::setTarget(std::optional<RemoteControlTarget> target) {
  {
    std::lock_guard guard(lock_);
    state_.target = target;
  }
  releaseButton();
}

void RemoteControlService::requestAccessibilityPermission() {
  if (permissions_->isTrustedForInput()) return;
  mainQueue_->post([permissions = permissions_] { permissions->promptForInputTrust(); });
}

std::optional<RemoteTapResult> RemoteControlService::refusal(std::optional<RemoteControlTarget>& target) {
  const State before = snapshot();
  target = before.target;
  if (before.isEnabled && before.target && permissions_->isTrustedForInput()) return std::nullopt;
  requestAccessibilityPermission();
  const State now = snapshot();
  if (!now.isEnabled) return RemoteTapResult::controlDisabled;
  if (!now.target) return RemoteTapResult::displayRequired;
  return RemoteTapResult::permissionRequired;
}

Point RemoteControlService::referencePosition(const RemoteControlTarget& target,
                                              bool prefersLastPoint) const {
  const std::optional<Point> last = snapshot().lastPoint;
  if (prefersLastPoint && last) return *last;
  if (const auto cursor = events_->cursorLocation()) return *cursor;
  if (last) return *last;
  const Rect frame = effectiveFrame(target, *displays_);
  return {frame.x + frame.width / 2, frame.y + frame.height / 2};
}

bool RemoteControlService::postMouse(MouseEventType type, Point position) {
  const auto source = events_->createSource();
  const auto event = source ? source->mouseEvent(type, position, MouseButton::left) : nullptr;
  if (!event) return false;
  event->post();
  return true;
}

RemoteTapResult RemoteControlService::pointer(RemotePointerPhase phase, double x, double y) {
  if (phase == RemotePointerPhase::cancel) {
    releaseButton();
    return RemoteTapResult::clicked;
  }
  // A button that was left held is let go before the new press.
  if (phase == RemotePointerPhase::down) releaseButton();

  const State before = snapshot();
  if (!before.isEnabled) return RemoteTapResult::controlDisabled;
  if (!before.target) return RemoteTapResult::displayRequired;
  const auto point = normalizedPoint(*before.target, *displays_, x, y);
  if (!point) return RemoteTapResult::invalidCoordinates;
  if (!permissions_->isTrustedForInput()) {
    requestAccessibilityPermission();
    return RemoteTapResult::permissionRequired;
  }

  std::optional<MouseEventType> type;
  {
    std::lock_guard guard(lock_);
    if (state_.target != before.target) return RemoteTapResult::displayRequired;
    switch (phase) {
      case RemotePointerPhase::down:
        state_.isButtonDown = true;
        type = MouseEventType::leftDown;
        break;
      case RemotePointerPhase::move:
        type = state_.isButtonDown ? MouseEventType::leftDragged : MouseEventType::moved;
        break;
      case RemotePointerPhase::up:
        if (std::exchange(state_.isButtonDown, false)) type = MouseEventType::leftUp;
        break;
      case RemotePointerPhase::cancel:
        break;
    }
    state_.lastPoint = point;
  }
  if (!type || postMouse(*type, *point)) return RemoteTapResult::clicked;
  if (phase == RemotePointerPhase::down) {
    std::lock_guard guard(lock_);
    state_.isButtonDown = false;
  }
  return RemoteTapResult::eventFailed;
}

RemoteTapResult RemoteControlService::tap(double x, double y) {
  const auto pressed = pointer(RemotePointerPhase::down, x, y);
  return pressed == RemoteTapResult::clicked ? pointer(RemotePointerPhase::up, x, y) : pressed;
}

void RemoteControlService::releaseButton() {
  std::optional<Point> position;
  {
    std::lock_guard guard(lock_);
    if (std::exchange(state_.isButtonDown, false)) position = state_.lastPoint;
  }
  if (position) postMouse(MouseEventType::leftUp, *position);
}

RemoteTapResult RemoteControlService::move(double dx, double dy, double sensitivity) {
  const bool isSensible = sensitivity >= kLowestSensitivity && sensitivity <= kHighestSensitivity;
  if (!std::isfinite(dx) || !std::isfinite(dy) || !isSensible) return RemoteTapResult::invalidCoordinates;
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;

  const Point from = referencePosition(*target, true);
  const Rect frame = effectiveFrame(*target, *displays_);
  // One point inside the far edges; min and max rather than clamp, since an empty frame turns the limits
  // around.
  const Point to{
      std::min(std::max(from.x + sensitivity * (dx * frame.width), frame.x), frame.x + frame.width - 1),
      std::min(std::max(from.y + sensitivity * (dy * frame.height), frame.y), frame.y + frame.height - 1)};
  const bool isDragging = snapshot().isButtonDown;
  if (!postMouse(isDragging ? MouseEventType::leftDragged : MouseEventType::moved, to)) {
    return RemoteTapResult::eventFailed;
  }
  std::lock_guard guard(lock_);
  state_.lastPoint = to;
  return RemoteTapResult::clicked;
}

RemoteTapResult RemoteControlService::click(RemoteMouseButton button) {
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;
  const Point position = referencePosition(*target, false);
  const auto source = events_->createSource();
  if (!source) return RemoteTapResult::eventFailed;
  const bool isRight = button == RemoteMouseButton::right;
  const auto side = isRight ? MouseButton::right : MouseButton::left;
  const auto down =
      source->mouseEvent(isRight ? MouseEventType::rightDown : MouseEventType::leftDown, position, side);
  const auto up =
      source->mouseEvent(isRight ? MouseEventType::rightUp : MouseEventType::leftUp, position, side);
  if (!down || !up) return RemoteTapResult::eventFailed;
  down->post();
  up->post();
  return RemoteTapResult::clicked;
}

RemoteTapResult RemoteControlService::setButton(bool down) {
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;
  const Point position = referencePosition(*target, false);
  const auto source = events_->createSource();
  const auto type = down ? MouseEventType::leftDown : MouseEventType::leftUp;
  const auto event = source ? source->mouseEvent(type, position, MouseButton::left) : nullptr;
  if (!event) return RemoteTapResult::eventFailed;
  {
    std::lock_guard guard(lock_);
    state_.isButtonDown = down;
    state_.lastPoint = position;
  }
  event->post();
  return RemoteTapResult::clicked;
}

RemoteTapResult RemoteControlService::scroll(double dx, double dy) {
  if (!std::isfinite(dx) || !std::isfinite(dy)) return RemoteTapResult::invalidCoordinates;
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;
  const auto source = events_->createSource();
  const auto event = source ? source->scrollEvent(wheelPixels(dy), wheelPixels(dx)) : nullptr;
  if (!event) return RemoteTapResult::eventFailed;
  event->post();
  return RemoteTapResult::clicked;
}

RemoteCursorState RemoteControlService::cursorState() const {
  const State now = snapshot();
  if (!now.target) return {};
  auto position = events_->cursorLocation();
  if (!position) position = now.lastPoint;
  if (!position) return {};
  const auto mapped = displayPoint(*now.target, *displays_, position->x, position->y);
  return mapped ? RemoteCursorState{true, mapped->x, mapped->y} : RemoteCursorState{};
}

}  // namespace kestrune
