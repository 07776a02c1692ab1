#pragma once

#include <cstdint>

namespace kestrune {

using DisplayID = std::uint32_t;

/// Points are global: origin at the top left of the main display, y grows downward.
struct Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const Rect&, const Rect&) = default;
};

/// A rectangle in pixels of one picture.
struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

}  // namespace kestrune
