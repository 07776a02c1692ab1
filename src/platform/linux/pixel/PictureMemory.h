#pragma once

#include <array>
#include <memory>

#include "platform/PixelBuffer.h"

namespace kestrune::linux_platform {

/// The memory of one "420v" picture. Rows begin at multiples of 64 bytes and go on for at least 32 bytes
/// behind their last pixel.
struct PictureMemory {
  std::array<PixelBuffer::Plane, 2> planes;
  std::shared_ptr<void> memory;
};

/// Not initialised. `memory` is null if there is none left.
PictureMemory allocatePicture(int width, int height);

}  // namespace kestrune::linux_platform
