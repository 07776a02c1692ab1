#include <gtest/gtest.h>

#include "CaptureTools.h"
#include "platform/linux/capture/SharedSegment.h"
#include "platform/linux/pixel/PixelRects.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::XServer;

TEST(X11CaptureChangesTest, OnlyWhatChangedIsNamed) {
  XServer server(1280, 720);
  Painter painter(server.displayName());
  painter.fill({0, 0, 1280, 720}, 0x808080);
  Receiver receiver(server.displayName(), sized(640, 360));
  ASSERT_EQ(receiver.start(), "");
  ASSERT_TRUE(receiver.waitForCount(4));
  painter.fill({200, 100, 8, 16}, 0xffffff);
  const auto small = receiver.waitForPicture([](const PixelBuffer& picture) {
    return !picture.changes->rectangles.empty() && picture.changes->sequence > 3;
  });
  ASSERT_TRUE(small);
  ASSERT_EQ(small->changes->rectangles.size(), 1U);
  EXPECT_TRUE(contains(small->changes->rectangles[0], {100, 50, 4, 8}));
  EXPECT_TRUE(contains({84, 34, 36, 40}, small->changes->rectangles[0]));
}

TEST(X11CaptureChangesTest, PicturesMadeOfPartsEqualWholeOnes) {
  XServer server(1280, 720);
  Painter painter(server.displayName());
  std::mt19937 random(5);
  const auto below = [&random](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  // Enlarging the frame by a part of a pixel gives odd phases; a receiver that holds on makes buffers change.
  Receiver receiver(server.displayName(), sized(1066, 600));
  receiver.hold(true);
  ASSERT_EQ(receiver.start(), "");
  for (int round = 0; round < 12; ++round) {
    for (int i = 0; i < 25; ++i) {
      const PixelRect area{below(1270), below(710), 1 + below(round % 3 == 0 ? 700 : 40), 1 + below(40)};
      painter.fill(area, static_cast<std::uint32_t>(random()) & 0xffffff);
      if (i % 5 == 0) receiver.hold(i % 2 == 0);
      if (i % 8 == 0) std::this_thread::sleep_for(12ms);
    }
    receiver.hold(false);
    Receiver fresh(server.displayName(), sized(1066, 600));
    ASSERT_EQ(fresh.start(), "");
    const auto whole = fresh.waitForPicture([](const PixelBuffer&) { return true; });
    ASSERT_TRUE(whole);
    ASSERT_TRUE(receiver.waitForPicture([&whole](const PixelBuffer& picture) {
      return sameBytes(picture, *whole);
    })) << "round "
        << round;
  }
  const auto seen = receiver.seen();
  for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].sequence, i);
}

TEST(SharedSegmentTest, TheServerWritesIntoEitherKindOfMemory) {
  XServer server(64, 64);
  Painter(server.displayName()).fill({0, 0, 64, 64}, 0x123456);
  const auto connection = X11Connection::open(server.displayName());
  for (const auto kind : {SharedSegment::Kind::best, SharedSegment::Kind::systemV}) {
    const auto segment = SharedSegment::create(*connection, 4096, kind);
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->isSystemV(), kind == SharedSegment::Kind::systemV);
    ASSERT_TRUE(waitForReply(*connection, xcb_shm_get_image_reply,
                             xcb_shm_get_image(*connection, connection->root(), 0, 0, 32, 32, ~0U,
                                               XCB_IMAGE_FORMAT_Z_PIXMAP, segment->id(), 0)));
    const std::uint8_t* last = segment->data() + 4096 - 4;
    EXPECT_EQ((std::vector<int>{last[0], last[1], last[2]}), (std::vector<int>{0x56, 0x34, 0x12}));
    // The server refuses to write behind the end.
    EXPECT_FALSE(waitForReply(*connection, xcb_shm_get_image_reply,
                              xcb_shm_get_image(*connection, connection->root(), 0, 0, 32, 32, ~0U,
                                                XCB_IMAGE_FORMAT_Z_PIXMAP, segment->id(), 64)));
  }
}

}  // namespace
}  // namespace kestrune::linux_platform
