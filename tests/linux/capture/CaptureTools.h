#pragma once

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/x11/DisplayLayout.h"
#include "runtime/ThreadQueue.h"
#include "support/FirstOutcome.h"
#include "unit/pixel/PictureTools.h"

namespace kestrune::linux_platform {

using namespace std::chrono_literals;

/// Draws on the root window of a test's X server.
class Painter {
 public:
  explicit Painter(const X11Address& server) : connection_(X11Connection::open(server)) {
    context_ = xcb_generate_id(*connection_);
    xcb_create_gc(*connection_, context_, connection_->root(), 0, nullptr);
  }

  /// The colour is 0xRRGGBB. Returns when the server has drawn.
  void fill(const PixelRect& area, std::uint32_t colour) {
    xcb_change_gc(*connection_, context_, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t rectangle{static_cast<std::int16_t>(area.x), static_cast<std::int16_t>(area.y),
                                    static_cast<std::uint16_t>(area.width),
                                    static_cast<std::uint16_t>(area.height)};
    xcb_poly_fill_rectangle(*connection_, connection_->root(), context_, 1, &rectangle);
    connection_->roundTrip();
  }
  void movePointer(std::int16_t x, std::int16_t y) {
    xcb_warp_pointer(*connection_, XCB_NONE, connection_->root(), 0, 0, 0, 0, x, y);
    connection_->roundTrip();
  }
  void movePointerAsDevice(std::int16_t x, std::int16_t y) {
    xcb_test_fake_input(*connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, connection_->root(), x, y, 0);
    connection_->roundTrip();
  }
  void grabServer() const {
    xcb_grab_server(*connection_);
    connection_->roundTrip();
  }
  DisplayLayout layout() const { return readDisplayLayout(*connection_); }

 private:
  std::unique_ptr<X11Connection> connection_;
  xcb_gcontext_t context_ = 0;
};

/// Whether the pixel has this colour (0xRRGGBB).
inline bool isColour(const PixelBuffer& picture, int x, int y, std::uint32_t colour) {
  const Ycc expected = bt709Of(colour & 0xff, colour >> 8 & 0xff, colour >> 16 & 0xff);
  return std::abs(lumaAt(picture, x, y) - expected.y) < 2 &&
         std::abs(chromaAt(picture, x / 2, y / 2, 0) - expected.cb) < 2 &&
         std::abs(chromaAt(picture, x / 2, y / 2, 1) - expected.cr) < 2;
}

/// Runs a stream and keeps what it delivers.
class Receiver {
 public:
  /// What one picture said of itself.
  struct Seen {
    std::int64_t time;
    std::uint64_t sequence;
    bool isRepeat;
  };

  /// Without a filter, of the main display.
  Receiver(const std::string& displayName, const ScreenStreamConfiguration& configuration,
           const std::optional<ContentFilter>& filter = std::nullopt)
      : Receiver(X11ScreenCapture(std::make_shared<X11Server>(displayName)), configuration,
                 filter ? *filter : mainDisplayFilter(displayName)) {}

  Receiver(ScreenCapture&& capture, const ScreenStreamConfiguration& configuration,
           const ContentFilter& filter) {
    stream_ = capture.createStream(filter, configuration, [this](std::exception_ptr failure) {
      const std::lock_guard guard(lock_);
      stopped_ = failure;
      arrived_.notify_all();
    });
    stream_->addVideoOutput(queue_, [this](VideoSample sample) {
      const std::lock_guard guard(lock_);
      seen_.push_back({*sample.presentationMicroseconds, sample.image->changes->sequence,
                       sample.image->changes->rectangles.empty()});
      if (isHolding_) held_.push_back(sample.image);
      newest_ = sample.image;
      arrived_.notify_all();
    });
  }

  static ContentFilter mainDisplayFilter(const std::string& displayName) {
    return displayFilter(X11ScreenCapture(std::make_shared<X11Server>(displayName)), 0);
  }
  static ContentFilter displayFilter(ScreenCapture&& capture, std::size_t index) {
    FirstOutcome<ShareableContent> known;
    capture.shareableContent(false, false, [&known](const auto& content, const std::exception_ptr&) {
      known.set(content.value_or(ShareableContent()));
    });
    return capture.filterForDisplay(known.get().displays.at(index));
  }

  std::string start() { return outcome(&ScreenStream::startCapture); }
  std::string stop() { return outcome(&ScreenStream::stopCapture); }
  std::string update(const ContentFilter& filter) {
    return outcome(&ScreenStream::updateContentFilter, filter);
  }
  std::string update(const ScreenStreamConfiguration& configuration) {
    return outcome(&ScreenStream::updateConfiguration, configuration);
  }

  /// Waits until the newest picture satisfies `predicate`; null if none does in time.
  template <class Predicate>
  SharedPixelBuffer waitForPicture(Predicate predicate, std::chrono::milliseconds limit = 5s) {
    std::unique_lock guard(lock_);
    const bool found = arrived_.wait_for(guard, limit, [&] { return newest_ && predicate(*newest_); });
    return found ? newest_ : nullptr;
  }
  /// Waits until the newest picture has these colours (0xRRGGBB) in these places.
  struct Spot {
    int x, y;
    std::uint32_t colour;
  };
  SharedPixelBuffer waitForColours(const std::vector<Spot>& spots) {
    return waitForPicture([&](const PixelBuffer& picture) {
      return std::ranges::all_of(
          spots, [&](const Spot& spot) { return isColour(picture, spot.x, spot.y, spot.colour); });
    });
  }
  bool waitForCount(std::size_t count, std::chrono::milliseconds limit = 5s) {
    std::unique_lock guard(lock_);
    return arrived_.wait_for(guard, limit, [&] { return seen_.size() >= count; });
  }
  /// The text of the failure with which the stream stopped by itself; empty if it did not in time.
  std::string waitForStop(std::chrono::milliseconds limit = 5s) {
    std::unique_lock guard(lock_);
    arrived_.wait_for(guard, limit, [&] { return stopped_ != nullptr; });
    return stopped_ ? localizedDescription(stopped_) : std::string();
  }
  /// From here on all pictures are held on to; an empty argument lets go of them.
  void hold(bool isOn) {
    const std::lock_guard guard(lock_);
    isHolding_ = isOn;
    held_.clear();
    newest_.reset();
  }
  std::vector<Seen> seen() {
    const std::lock_guard guard(lock_);
    return seen_;
  }
  ScreenStream& stream() { return *stream_; }

 private:
  /// The outcome's text; empty on success.
  template <class Operation, class... Arguments>
  std::string outcome(Operation operation, const Arguments&... arguments) {
    FirstOutcome<std::string> text;
    ((*stream_).*operation)(arguments..., [&text](std::exception_ptr failure) {
      text.set(failure ? localizedDescription(failure) : std::string());
    });
    return text.get();
  }

  std::mutex lock_;  // guards the next six
  std::condition_variable arrived_;
  std::exception_ptr stopped_;
  SharedPixelBuffer newest_;
  std::vector<Seen> seen_;
  bool isHolding_ = false;
  std::vector<SharedPixelBuffer> held_;
  // Last, since their work uses the rest.
  std::shared_ptr<ThreadQueue> queue_ = std::make_shared<ThreadQueue>("receiver");
  std::unique_ptr<ScreenStream> stream_;
};

inline ScreenStreamConfiguration sized(int width, int height, int rate = 60) {
  ScreenStreamConfiguration configuration;
  configuration.width = width;
  configuration.height = height;
  configuration.minimumFrameIntervalFPS = rate;
  configuration.showsCursor = false;
  return configuration;
}

}  // namespace kestrune::linux_platform
