#include "browser/ChromeWindow.h"

namespace kestrune {
namespace {

bool isWithin(double value, double start, double length) {
  constexpr double kTolerance = 2;
  return value >= start - kTolerance && value <= start + length + kTolerance;
}

}  // namespace

bool isBrowserWindow(const WindowInfo& window) {
  constexpr double kLargestAuxiliary = 100;  // bubbles, tooltips, helper windows
  return window.layer == 0 && window.bounds && window.bounds->width > kLargestAuxiliary &&
         window.bounds->height > kLargestAuxiliary;
}

std::optional<Rect> chromeWindowFrame(const std::vector<WindowInfo>& windows, ProcessID process) {
  for (const auto& window : windows) {
    if (window.owner == process && isBrowserWindow(window)) return window.bounds;
  }
  return {};
}

bool isOnTarget(const Rect& window, const Rect& frame) {
  return isWithin(window.x + window.width / 2, frame.x, frame.width) &&
         isWithin(window.y + window.height / 2, frame.y, frame.height);
}

}  // namespace kestrune
