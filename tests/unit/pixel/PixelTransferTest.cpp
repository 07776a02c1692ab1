#include <gtest/gtest.h>

#include "PictureTools.h"
#include "platform/linux/pixel/LibyuvPixelTransfer.h"

namespace kestrune::linux_platform {
namespace {

using Factory = LibyuvPixelTransferFactory;

TEST(PixelTransferTest, LetterboxesBothFormatsAlike) {
  Factory factory;
  const auto session = factory.createSession();
  Bgrx source{320, 240};
  source.fill(30, 60, 220);
  PixelBuffer bgrx(320, 240, PixelFormat::bgrx, {{{source.bytes.data(), 1280}, {}}}, nullptr);
  const auto sameSize = factory.createBuffer(320, 240);
  ASSERT_EQ(session->transfer(bgrx, *sameSize), Factory::kSuccess);
  const auto direct = factory.createBuffer(160, 90);
  const auto throughNv12 = factory.createBuffer(160, 90);
  ASSERT_EQ(session->transfer(bgrx, *direct), Factory::kSuccess);
  ASSERT_EQ(session->transfer(*sameSize, *throughNv12), Factory::kSuccess);
  const Ycc expected = bt709Of(30, 60, 220);
  for (const auto& picture : {direct, throughNv12}) {
    // The library's box filter rounds down.
    const double tolerance = picture == direct ? 1.25 : 3;
    for (const int y : {0, 45, 89}) {
      EXPECT_EQ(lumaAt(*picture, 19, y), 16);
      EXPECT_EQ(chromaAt(*picture, 9, y / 2, 1), 128);
      EXPECT_NEAR(lumaAt(*picture, 20, y), expected.y, tolerance);
      EXPECT_NEAR(lumaAt(*picture, 139, y), expected.y, tolerance);
      EXPECT_NEAR(chromaAt(*picture, 10, y / 2, 0), expected.cb, tolerance);
      EXPECT_NEAR(chromaAt(*picture, 69, y / 2, 1), expected.cr, tolerance);
      EXPECT_EQ(lumaAt(*picture, 140, y), 16);
    }
  }
  EXPECT_EQ(session->transfer(*direct, bgrx), Factory::kPixelFormatNotSupported);
}

TEST(PixelTransferTest, PoolUsesPicturesAgainUpToItsLimit) {
  Factory factory;
  auto pool = factory.createPool(64, 32);
  std::vector<std::shared_ptr<PixelBuffer>> held;
  for (int i = 0; i < Factory::kPoolLimit; ++i) {
    held.push_back(pool->createBuffer().buffer);
    ASSERT_TRUE(held.back());
  }
  EXPECT_EQ(pool->createBuffer().status, Factory::kWouldExceedThreshold);
  const std::uint8_t* memory = held[3]->plane(0).data;
  held[3].reset();
  const auto again = pool->createBuffer();
  ASSERT_EQ(again.status, Factory::kSuccess);
  EXPECT_EQ(again.buffer->plane(0).data, memory);
  pool.reset();
  held[5]->plane(1).data[0] = 1;  // a buffer outlives its pool

  EXPECT_EQ(factory.createPool(0, 5), nullptr);
  EXPECT_EQ(factory.createBuffer(Factory::kMaximumSide + 1, 5), nullptr);
}

}  // namespace
}  // namespace kestrune::linux_platform
