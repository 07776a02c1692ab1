#include "platform/linux/capture/CursorOverlay.h"

#include <xcb/xfixes.h>

#include <cstring>

#include "platform/linux/capture/DirtyRegion.h"

namespace kestrune::linux_platform {

bool CursorOverlay::refresh(const X11Connection& connection) {
  const auto reply =
      waitForReply(connection, xcb_xfixes_get_cursor_image_reply, xcb_xfixes_get_cursor_image(connection));
  if (!reply) return false;
  const PixelRect area{reply->x - reply->xhot, reply->y - reply->yhot, reply->width, reply->height};
  if (area == area_ && reply->cursor_serial == serial_) return false;
  const std::uint32_t* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
  const int count = xcb_xfixes_get_cursor_image_cursor_image_length(reply.get());
  if (count != area.width * area.height) return false;
  image_.assign(pixels, pixels + count);
  area_ = area;
  serial_ = reply->cursor_serial;
  return true;
}

void CursorOverlay::hide() {
  area_ = {};
  serial_ = 0;
  image_.clear();
}

void CursorOverlay::draw(std::uint8_t* pixels, std::ptrdiff_t stride, const PixelRect& area) const {
  const PixelRect part = intersection(area, area_);
  for (int y = part.y; y < part.y + part.height; ++y) {
    const std::uint32_t* from =
        &image_[static_cast<std::size_t>((y - area_.y) * area_.width + part.x - area_.x)];
    std::uint8_t* to = pixels + (y - area.y) * stride + std::ptrdiff_t{4} * (part.x - area.x);
    for (int x = 0; x < part.width; ++x, to += 4) {
      const std::uint32_t alpha = from[x] >> 24;
      if (alpha == 0) continue;
      for (int channel = 0; channel < 3; ++channel) {
        const std::uint32_t own = from[x] >> (8 * channel) & 0xff;
        const std::uint32_t sum = own + (to[channel] * (255 - alpha) + 127) / 255;
        to[channel] = static_cast<std::uint8_t>(sum > 255 ? 255 : sum);
      }
    }
  }
}

}  // namespace kestrune::linux_platform
