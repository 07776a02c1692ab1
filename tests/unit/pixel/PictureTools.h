#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "platform/linux/pixel/BgrxToNv12.h"
#include "platform/linux/pixel/PictureMemory.h"

namespace kestrune::linux_platform {

/// A BGRX picture of a test's making.
struct Bgrx {
  int width;
  int height;
  std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4));

  std::uint8_t* at(int x, int y) { return &bytes[static_cast<std::size_t>(4 * (y * width + x))]; }
  const std::uint8_t* at(int x, int y) const { return &bytes[static_cast<std::size_t>(4 * (y * width + x))]; }
  BgrxView view() const { return {bytes.data(), 4 * width, {0, 0, width, height}}; }

  void fill(int b, int g, int r) {
    for (int i = 0; i < width * height; ++i) {
      std::uint8_t* pixel = &bytes[static_cast<std::size_t>(4 * i)];
      pixel[0] = static_cast<std::uint8_t>(b);
      pixel[1] = static_cast<std::uint8_t>(g);
      pixel[2] = static_cast<std::uint8_t>(r);
    }
  }
  void fillWithNoise(std::mt19937& random, PixelRect area) {
    for (int y = area.y; y < area.y + area.height; ++y) {
      for (int x = area.x; x < area.x + area.width; ++x) {
        for (int c = 0; c < 4; ++c) at(x, y)[c] = static_cast<std::uint8_t>(random());
      }
    }
  }
};

inline std::unique_ptr<PixelBuffer> makeNv12(int width, int height) {
  const PictureMemory memory = allocatePicture(width, height);
  auto picture = std::make_unique<PixelBuffer>(width, height, PixelFormat::biPlanar420VideoRange,
                                               memory.planes, memory.memory);
  fillBlack(*picture);
  return picture;
}

inline int lumaAt(const PixelBuffer& picture, int x, int y) {
  return picture.plane(0).data[y * picture.plane(0).stride + x];
}
/// `component` 0 is Cb, 1 is Cr; x and y count chroma samples.
inline int chromaAt(const PixelBuffer& picture, int x, int y, int component) {
  return picture.plane(1).data[y * picture.plane(1).stride + 2 * x + component];
}

inline bool sameBytes(const PixelBuffer& a, const PixelBuffer& b) {
  const int evenWidth = (a.width() + 1) / 2 * 2;
  for (int row = 0; row < a.height() + (a.height() + 1) / 2; ++row) {
    const bool isLuma = row < a.height();
    const auto begin = [&](const PixelBuffer& picture) {
      const auto& plane = picture.plane(isLuma ? 0 : 1);
      return plane.data + (isLuma ? row : row - a.height()) * plane.stride;
    };
    if (std::memcmp(begin(a), begin(b), static_cast<std::size_t>(isLuma ? a.width() : evenWidth)) != 0)
      return false;
  }
  return true;
}

struct Ycc {
  double y, cb, cr;
};

/// ITU-R BT.709-6, items 3.2 to 3.4, 8 bits, without rounding.
inline Ycc bt709Of(double b, double g, double r) {
  const double luma = (0.2126 * r + 0.7152 * g + 0.0722 * b) / 255;
  return {16 + 219 * luma, 128 + 224 * (b / 255 - luma) / 1.8556, 128 + 224 * (r / 255 - luma) / 1.5748};
}

}  // namespace kestrune::linux_platform
