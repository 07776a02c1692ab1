#include "platform/linux/pixel/PictureMemory.h"

#include <cstdlib>

namespace kestrune::linux_platform {

namespace {
constexpr std::size_t kRowAlignment = 64;
constexpr std::size_t kRowMargin = 32;
}  // namespace

PictureMemory allocatePicture(int width, int height) {
  const auto columns = static_cast<std::size_t>(width) + static_cast<std::size_t>(width % 2);
  const auto rows = static_cast<std::size_t>(height);
  const std::size_t stride = (columns + kRowMargin + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
  const std::size_t lumaSize = stride * rows;
  auto* bytes =
      static_cast<std::uint8_t*>(std::aligned_alloc(kRowAlignment, lumaSize + stride * ((rows + 1) / 2)));
  if (bytes == nullptr) return {};
  const auto step = static_cast<std::ptrdiff_t>(stride);
  return {{{{bytes, step}, {bytes + lumaSize, step}}}, std::shared_ptr<void>(bytes, std::free)};
}

}  // namespace kestrune::linux_platform
