#pragma once

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <random>
#include <vector>

#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/x11/DisplayLayout.h"
#include "runtime/ThreadQueue.h"
#include "unit/pixel/PictureTools.h"

namespace kestrune::linux_platform {

using namespace std::chrono_literals;

/// Draws on the root window of a test's X server.
class Painter {
 public:
  explicit Painter(const std::string& displayName) : connection_(X11Connection::open(displayName)) {
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
  void movePointer(int x, int y) {
    xcb_warp_pointer(*connection_, XCB_NONE, connection_->root(), 0, 0, 0, 0, static_cast<std::int16_t>(x),
                     static_cast<std::int16_t>(y));
    connection_->roundTrip();
  }
  void movePointerAsDevice(int x, int y) {
    xcb_test_fake_input(*connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, connection_->root(),
                        static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
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

/// Runs a stream and keeps what it delivers.
class Receiver {
 public:
  Receiver(const std::string& displayName, const ScreenStreamConfiguration& configuration)
      : Receiver(displayName, configuration, mainDisplayFilter(displayName)) {}

  Receiver(const std::string& displayName, const ScreenStreamConfiguration& configuration,
           const ContentFilter& filter)
      : capture_(std::make_shared<X11Server>(displayName)),
        queue_(std::make_shared<ThreadQueue>("receiver")) {
    stream_ = capture_.createStream(filter, configuration, [this](std::exception_ptr failure) {
      const std::lock_guard guard(lock_);
      stopped_ = failure;
      arrived_.notify_all();
    });
    stream_->addVideoOutput(queue_, [this](VideoSample sample) {
      const std::lock_guard guard(lock_);
      times_.push_back(*sample.presentationMicroseconds);
      sequences_.push_back(sample.image->changes->sequence);
      isRepeat_.push_back(sample.image->changes->rectangles.empty());
      if (isHolding_) held_.push_back(sample.image);
      newest_ = sample.image;
      ++count_;
      arrived_.notify_all();
    });
  }
  ~Receiver() {
    stream_.reset();
    queue_.reset();
  }

  static ContentFilter mainDisplayFilter(const std::string& displayName) {
    X11ScreenCapture capture(std::make_shared<X11Server>(displayName));
    std::promise<ShareableContent> promise;
    capture.shareableContent(false, false, [&promise](auto content, std::exception_ptr failure) {
      failure ? promise.set_exception(failure) : promise.set_value(*content);
    });
    return capture.filterForDisplay(promise.get_future().get().displays.at(0));
  }

  /// The outcome's text; empty on success.
  template <class Operation>
  static std::string outcome(Operation operation) {
    std::promise<std::string> promise;
    operation([&promise](std::exception_ptr failure) {
      promise.set_value(failure ? localizedDescription(failure) : std::string());
    });
    return promise.get_future().get();
  }
  std::string start() {
    return outcome([this](auto completion) { stream_->startCapture(completion); });
  }
  std::string stop() {
    return outcome([this](auto completion) { stream_->stopCapture(completion); });
  }
  std::string update(const ScreenStreamConfiguration& configuration) {
    return outcome([&](auto completion) { stream_->updateConfiguration(configuration, completion); });
  }

  /// Waits until the newest picture satisfies `predicate`; null if none does in time.
  template <class Predicate>
  SharedPixelBuffer waitForPicture(Predicate predicate, std::chrono::milliseconds limit = 5s) {
    std::unique_lock guard(lock_);
    const bool found = arrived_.wait_for(guard, limit, [&] { return newest_ && predicate(*newest_); });
    return found ? newest_ : nullptr;
  }
  bool waitForCount(std::size_t count, std::chrono::milliseconds limit = 5s) {
    std::unique_lock guard(lock_);
    return arrived_.wait_for(guard, limit, [&] { return count_ >= count; });
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
  std::size_t count() {
    const std::lock_guard guard(lock_);
    return count_;
  }
  std::vector<std::int64_t> times() {
    const std::lock_guard guard(lock_);
    return times_;
  }
  std::vector<std::uint64_t> sequences() {
    const std::lock_guard guard(lock_);
    return sequences_;
  }
  std::vector<bool> isRepeat() {
    const std::lock_guard guard(lock_);
    return isRepeat_;
  }
  ScreenStream& stream() { return *stream_; }

 private:
  X11ScreenCapture capture_;
  std::shared_ptr<ThreadQueue> queue_;
  std::unique_ptr<ScreenStream> stream_;
  std::mutex lock_;  // guards the rest
  std::condition_variable arrived_;
  std::exception_ptr stopped_;
  SharedPixelBuffer newest_;
  std::size_t count_ = 0;
  std::vector<std::int64_t> times_;
  std::vector<std::uint64_t> sequences_;
  std::vector<bool> isRepeat_;
  bool isHolding_ = false;
  std::vector<SharedPixelBuffer> held_;
};

inline ScreenStreamConfiguration sized(int width, int height, int rate = 60) {
  ScreenStreamConfiguration configuration;
  configuration.width = width;
  configuration.height = height;
  configuration.minimumFrameIntervalFPS = rate;
  configuration.showsCursor = false;
  return configuration;
}

/// Whether the pixel has this colour (0xRRGGBB).
inline bool isColour(const PixelBuffer& picture, int x, int y, std::uint32_t colour) {
  const Ycc expected = bt709Of(colour & 0xff, colour >> 8 & 0xff, colour >> 16 & 0xff);
  return std::abs(lumaAt(picture, x, y) - expected.y) < 2 &&
         std::abs(chromaAt(picture, x / 2, y / 2, 0) - expected.cb) < 2 &&
         std::abs(chromaAt(picture, x / 2, y / 2, 1) - expected.cr) < 2;
}

}  // namespace kestrune::linux_platform
