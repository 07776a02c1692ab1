#include <gtest/gtest.h>

#include <algorithm>

#include "PictureTools.h"
#include "platform/linux/pixel/BgrxToNv12.h"
#include "platform/linux/pixel/PixelRects.h"

namespace kestrune::linux_platform {
namespace {

struct Sizes {
  int sourceWidth, sourceHeight, width, height;
};

// Down by the usual and by odd factors, up, in one direction only, none at all, tiny, far down.
constexpr Sizes kSizes[] = {
    {192, 108, 160, 90}, {192, 108, 128, 72}, {201, 113, 161, 91}, {160, 90, 160, 90}, {161, 91, 161, 91},
    {64, 36, 160, 90},   {33, 17, 160, 90},   {128, 100, 160, 90}, {384, 216, 96, 54}, {640, 360, 64, 36},
    {1000, 40, 100, 90}, {1, 1, 16, 16},      {5, 3, 2, 2},        {300, 300, 7, 5},   {90, 160, 160, 90}};

std::vector<const PixelKernels*> allKernels() {
  std::vector<const PixelKernels*> kernels{&portableKernels()};
  if (avx2Kernels() != nullptr) kernels.push_back(avx2Kernels());
  return kernels;
}

/// The mean colour of the source under an output area, all in double precision.
void meanColour(const Bgrx& source, double left, double right, double top, double bottom, double* mean) {
  double total = 0;
  mean[0] = mean[1] = mean[2] = 0;
  for (int y = static_cast<int>(top); y < std::min(std::ceil(bottom), source.height + 0.0); ++y) {
    const double tall = std::min(bottom, y + 1.0) - std::max(top, y + 0.0);
    for (int x = static_cast<int>(left); x < std::min(std::ceil(right), source.width + 0.0); ++x) {
      const double share = tall * (std::min(right, x + 1.0) - std::max(left, x + 0.0));
      for (int c = 0; c < 3; ++c) mean[c] += share * source.at(x, y)[c];
      total += share;
    }
  }
  for (int c = 0; c < 3; ++c) mean[c] /= total;
}

/// How far a picture of one colour is from it at most, at (x, y).
double distanceFrom(const Ycc& colour, const PixelBuffer& picture, int x, int y) {
  return std::max({std::abs(lumaAt(picture, x, y) - colour.y),
                   std::abs(chromaAt(picture, x / 2, y / 2, 0) - colour.cb),
                   std::abs(chromaAt(picture, x / 2, y / 2, 1) - colour.cr)});
}

TEST(BgrxToNv12Test, EveryColourComesOutAsBt709WithinOne) {
  for (const PixelKernels* kernels : allKernels()) {
    Bgrx source{66, 34};
    BgrxToNv12 converter(66, 34, 66, 34, Placement::letterbox, *kernels);
    const auto picture = makeNv12(66, 34);
    double worst = 0;
    for (int colour = 0; colour < 18 * 18 * 18; ++colour) {
      const int b = colour / 324 * 15;
      const int g = colour / 18 % 18 * 15;
      const int r = colour % 18 * 15;
      source.fill(b, g, r);
      converter.convert(source.view(), converter.content(), *picture);
      for (const int x : {0, 40, 65})
        worst = std::max(worst, distanceFrom(bt709Of(b, g, r), *picture, x, 33));
      if (b != g || g != r) continue;
      ASSERT_EQ(chromaAt(*picture, 3, 3, 0), 128) << b;
      ASSERT_EQ(chromaAt(*picture, 3, 3, 1), 128) << b;
      const bool isEnd = b == 0 || b == 255;
      ASSERT_NEAR(lumaAt(*picture, 8, 8), bt709Of(b, g, r).y, isEnd ? 1e-6 : 1.25) << b;
    }
    // Rounding alone is 0.5.
    EXPECT_LT(worst, 1.25);
  }
}

TEST(BgrxToNv12Test, ScalingDownIsTheMeanOfTheAreaInTheRightPlace) {
  std::mt19937 random(7);
  for (const Sizes& sizes : {Sizes{192, 108, 160, 90}, Sizes{201, 113, 161, 91}, Sizes{640, 360, 64, 36}}) {
    Bgrx source{sizes.sourceWidth, sizes.sourceHeight};
    source.fillWithNoise(random, {0, 0, source.width, source.height});
    for (const PixelKernels* kernels : allKernels()) {
      BgrxToNv12 converter(source.width, source.height, sizes.width, sizes.height, Placement::stretch,
                           *kernels);
      const auto picture = makeNv12(sizes.width, sizes.height);
      converter.convert(source.view(), converter.content(), *picture);
      const double stepX = static_cast<double>(source.width) / sizes.width;
      const double stepY = static_cast<double>(source.height) / sizes.height;
      double worstLuma = 0;
      double worstChroma = 0;
      double mean[3];
      for (int y = 0; y < sizes.height; ++y) {
        for (int x = 0; x < sizes.width; ++x) {
          meanColour(source, x * stepX, (x + 1) * stepX, y * stepY, (y + 1) * stepY, mean);
          const double luma = bt709Of(mean[0], mean[1], mean[2]).y;
          worstLuma = std::max(worstLuma, std::abs(lumaAt(*picture, x, y) - luma));
          if (x >= sizes.width / 2 || y >= sizes.height / 2) continue;
          meanColour(source, 2 * x * stepX, 2 * (x + 1) * stepX, 2 * y * stepY, 2 * (y + 1) * stepY, mean);
          const Ycc expected = bt709Of(mean[0], mean[1], mean[2]);
          worstChroma = std::max(worstChroma, std::abs(chromaAt(*picture, x, y, 0) - expected.cb));
          worstChroma = std::max(worstChroma, std::abs(chromaAt(*picture, x, y, 1) - expected.cr));
        }
      }
      // Noise of full contrast is the worst case of the 7-bit weights.
      EXPECT_LT(worstLuma, 4) << sizes.width;
      // Chroma is filtered from the means of 2x2 pixels, which an area may cut.
      EXPECT_LT(worstChroma, source.width % sizes.width == 0 ? 4 : 40) << sizes.width;
    }
  }
}

TEST(BgrxToNv12Test, FlatAreasStayFlatAtEverySize) {
  const Ycc colour = bt709Of(40, 200, 90);
  const Ycc black{16, 128, 128};
  for (const Sizes& sizes : kSizes) {
    Bgrx source{sizes.sourceWidth, sizes.sourceHeight};
    source.fill(40, 200, 90);
    for (const PixelKernels* kernels : allKernels()) {
      for (const Placement placement : {Placement::letterbox, Placement::letterboxDown, Placement::stretch}) {
        BgrxToNv12 converter(source.width, source.height, sizes.width, sizes.height, placement, *kernels);
        const auto picture = makeNv12(sizes.width, sizes.height);
        const PixelRect content = converter.content();
        converter.convert(source.view(), content, *picture);
        for (int i = 0; i < sizes.width * sizes.height; ++i) {
          const int x = i % sizes.width;
          const int y = i / sizes.width;
          const bool inside = contains(content, {x, y, 1, 1});
          ASSERT_LE(distanceFrom(inside ? colour : black, *picture, x, y), inside ? 1.25 : 0)
              << x << "," << y << " of " << sizes.sourceWidth << " to " << sizes.width;
        }
      }
    }
  }
}

TEST(BgrxToNv12Test, ContentIsCentredWithItsAspectAndEvenCorners) {
  EXPECT_EQ(placeContent(1920, 1080, 1600, 900, Placement::letterbox), (PixelRect{0, 0, 1600, 900}));
  EXPECT_EQ(placeContent(1024, 768, 1600, 900, Placement::letterbox), (PixelRect{200, 0, 1200, 900}));
  EXPECT_EQ(placeContent(768, 1024, 1600, 900, Placement::letterbox), (PixelRect{462, 0, 676, 900}));
  EXPECT_EQ(placeContent(640, 480, 1600, 900, Placement::letterboxDown), (PixelRect{480, 210, 640, 480}));
  EXPECT_EQ(placeContent(640, 480, 1600, 900, Placement::stretch), (PixelRect{0, 0, 1600, 900}));
  // A bar of less than a pixel is none.
  EXPECT_EQ(placeContent(1366, 768, 1280, 720, Placement::letterbox), (PixelRect{0, 0, 1280, 720}));
  EXPECT_EQ(placeContent(16384, 1, 16, 16, Placement::letterbox), (PixelRect{0, 6, 16, 2}));
}

TEST(BgrxToNv12Test, PartsEqualTheWholeAndBothKernelsAgree) {
  std::mt19937 random(11);
  const auto below = [&random](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  for (const Sizes& sizes : kSizes) {
    Bgrx source{sizes.sourceWidth, sizes.sourceHeight};
    source.fillWithNoise(random, {0, 0, source.width, source.height});
    BgrxToNv12 portable(source.width, source.height, sizes.width, sizes.height, Placement::letterbox,
                        portableKernels());
    BgrxToNv12 partly(source.width, source.height, sizes.width, sizes.height, Placement::letterbox);
    const auto whole = makeNv12(sizes.width, sizes.height);
    const auto picture = makeNv12(sizes.width, sizes.height);
    portable.convert(source.view(), portable.content(), *whole);
    partly.convert(source.view(), partly.content(), *picture);
    ASSERT_TRUE(sameBytes(*whole, *picture))
        << "kernels differ at " << sizes.sourceWidth << " to " << sizes.width;

    for (int round = 0; round < 40; ++round) {
      PixelRect changed{below(source.width), below(source.height), 1, 1};
      changed.width += below(std::min(60, source.width - changed.x));
      changed.height += below(std::min(60, source.height - changed.y));
      source.fillWithNoise(random, changed);
      const PixelRect destination = partly.destinationFor(changed);
      const PixelRect needed = partly.sourceFor(destination);
      ASSERT_GT(destination.width, 0);
      // Hands over nothing but what was asked for, in memory of its own, so that a read beyond it is seen.
      Bgrx cut{needed.width, needed.height};
      for (int y = 0; y < needed.height; ++y) {
        std::copy_n(source.at(needed.x, needed.y + y), 4 * needed.width, cut.at(0, y));
      }
      partly.convert({cut.bytes.data(), 4 * cut.width, needed}, destination, *picture);
      portable.convert(source.view(), portable.content(), *whole);
      ASSERT_TRUE(sameBytes(*whole, *picture))
          << sizes.sourceWidth << "x" << sizes.sourceHeight << " to " << sizes.width << ", changed "
          << changed.x << "," << changed.y << " " << changed.width << "x" << changed.height;
    }
  }
  BgrxToNv12 converter(192, 108, 160, 90, Placement::letterbox);
  EXPECT_EQ(converter.destinationFor({192, 0, 5, 5}), PixelRect{});
  EXPECT_LE(converter.destinationFor({96, 54, 1, 1}).width, 32);
  if (allKernels().size() == 1) GTEST_SKIP() << "no AVX2 here: only the portable kernel was compared";
}

}  // namespace
}  // namespace kestrune::linux_platform
