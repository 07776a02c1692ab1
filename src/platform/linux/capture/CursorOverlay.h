#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Geometry.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// The cursor's image and place as XFIXES tells them, to be drawn into pictures of the screen, which come
/// without it. Confined to one thread.
class CursorOverlay {
 public:
  /// Asks the server. Returns whether image or place changed.
  bool refresh(const X11Connection& connection);
  /// Forgets the cursor, which then covers nothing.
  void hide();
  /// What the cursor covers, in root pixels; empty while there is none.
  const PixelRect& area() const { return area_; }
  /// Draws the part of the cursor that lies within `area` of the root window into its BGRX pixels.
  void draw(std::uint8_t* pixels, std::ptrdiff_t stride, const PixelRect& area) const;

 private:
  PixelRect area_;
  std::uint32_t serial_ = 0;
  std::vector<std::uint32_t> image_;  // ARGB, colours multiplied by alpha, area_.width to a row
};

}  // namespace kestrune::linux_platform
