#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "platform/PixelBuffer.h"
#include "support/FakePixelTransfer.h"

namespace kestrune {

/// Pictures like those of a desktop, drawn straight into 4:2:0 planes and the same in every run: a white page
/// of dark text that can be scrolled, a caret, an area of video. Every picture says what changed in it.
class SyntheticScreen {
 public:
  SyntheticScreen(int width, int height) : width_(width), height_(height), page_(makePage()) {}

  /// The page from row `offset` on.
  std::shared_ptr<PixelBuffer> text(int offset) {
    auto image = makePixelBuffer(width_, height_);
    for (int y = 0; y < height_; ++y) {
      const auto row = page_.begin() + static_cast<std::ptrdiff_t>((offset + y) % kPageRows) * width_;
      std::copy_n(row, width_, image->plane(0).data + y * image->plane(0).stride);
    }
    return stamped(std::move(image), {{0, 0, width_, height_}});
  }

  /// The top of the page with a caret that is there or not.
  std::shared_ptr<PixelBuffer> caret(bool isShown) {
    auto image = text(0);
    const PixelRect place{width_ / 2, height_ / 2, 2, 16};
    for (int y = place.y; isShown && y < place.y + place.height; ++y) {
      std::fill_n(image->plane(0).data + y * image->plane(0).stride + place.x, place.width,
                  std::uint8_t{kBlack});
    }
    image->changes->rectangles = {place};
    return image;
  }

  /// The top of the page with an area of moving shapes and a little noise in its middle.
  std::shared_ptr<PixelBuffer> video(int frame, int areaWidth, int areaHeight) {
    auto image = text(0);
    const PixelRect area{(width_ - areaWidth) / 4 * 2, (height_ - areaHeight) / 4 * 2, areaWidth, areaHeight};
    for (int y = 0; y < area.height; ++y) {
      std::uint8_t* luma = image->plane(0).data + (area.y + y) * image->plane(0).stride + area.x;
      for (int x = 0; x < area.width; ++x) {
        const int wave = ((x + 3 * frame) / 4 ^ (y + frame) / 8) & 63;
        const int noise = static_cast<int>((x * 73 + y * 151 + frame * 977) * 2654435761U >> 30);
        luma[x] = static_cast<std::uint8_t>(64 + (x + 2 * frame) % 64 + wave + noise);
      }
      if (y % 2 != 0) continue;
      std::uint8_t* chroma = image->plane(1).data + (area.y + y) / 2 * image->plane(1).stride + area.x;
      for (int x = 0; x < area.width; ++x) {
        chroma[x] = static_cast<std::uint8_t>(96 + (x / 8 + y / 8 + frame) % 64);
      }
    }
    image->changes->rectangles = {area};
    return image;
  }

  /// The same picture once more.
  std::shared_ptr<PixelBuffer> repeat(const PixelBuffer& image) {
    auto same = std::make_shared<PixelBuffer>(image);
    return stamped(std::move(same), {});
  }

 private:
  static constexpr std::uint8_t kWhite = 235;
  static constexpr std::uint8_t kGrey = 130;
  static constexpr std::uint8_t kBlack = 16;
  static constexpr int kPageRows = 4000;
  static constexpr int kLineHeight = 18;
  static constexpr int kGlyphWidth = 8;
  static constexpr int kGlyphHeight = 11;

  std::shared_ptr<PixelBuffer> stamped(std::shared_ptr<PixelBuffer> image, std::vector<PixelRect> changed) {
    image->changes = PictureChanges{sequence_++, std::move(changed)};
    return image;
  }

  /// Words of random strokes with grey edges, in lines of random length.
  std::vector<std::uint8_t> makePage() const {
    std::vector<std::uint8_t> page(static_cast<std::size_t>(width_) * kPageRows, kWhite);
    std::mt19937 random(7);
    for (int top = 4; top + kGlyphHeight < kPageRows; top += kLineHeight) {
      const int end = width_ / 3 + static_cast<int>(random() % static_cast<unsigned>(width_ / 2));
      for (int left = 24; left + kGlyphWidth < end; left += kGlyphWidth) {
        if (random() % 6 == 0) continue;  // between words
        drawGlyph(page, left, top, random() % 64);
      }
    }
    return page;
  }

  void drawGlyph(std::vector<std::uint8_t>& page, int left, int top, unsigned shape) const {
    std::mt19937 strokes(shape);
    for (int stroke = 0; stroke < 3; ++stroke) {
      const bool isUpright = strokes() % 2 == 0;
      const int at = static_cast<int>(strokes() % (isUpright ? kGlyphWidth - 3 : kGlyphHeight - 1));
      for (int i = 0; i < (isUpright ? kGlyphHeight : kGlyphWidth - 2); ++i) {
        const int x = left + (isUpright ? at : i);
        const int y = top + (isUpright ? i : at);
        auto* pixel = &page[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                            static_cast<std::size_t>(x)];
        pixel[0] = kBlack;
        pixel[1] = std::min(pixel[1], kGrey);
      }
    }
  }

  int width_;
  int height_;
  std::vector<std::uint8_t> page_;
  std::uint64_t sequence_ = 0;
};

}  // namespace kestrune
