#include "platform/linux/capture/CaptureSession.h"

#include <algorithm>
#include <utility>

namespace kestrune::linux_platform {

namespace {

using namespace std::chrono_literals;

constexpr int kMaximumSide = 16384;
constexpr int kMaximumRate = 240;
constexpr int kMaximumDepth = 8;
/// A mode switch may turn the output off and on again.
constexpr Duration kMissingGrace = 1s;
/// How often the cursor's place is asked for where the server does not tell.
constexpr Duration kPointerCheck = 33ms;
constexpr int kMaximumFailedReads = 8;
/// Large areas are read in bands of about this many pixels, so that one is converted while the server copies
/// the next.
constexpr int kBandPixels = 400'000;

void require(const ScreenStreamConfiguration& configuration) {
  const auto isWithin = [](int value, int limit) { return value >= 1 && value <= limit; };
  if (!isWithin(configuration.width, kMaximumSide) || !isWithin(configuration.height, kMaximumSide)) {
    throw X11Error("The size " + std::to_string(configuration.width) + "x" +
                   std::to_string(configuration.height) + " cannot be captured.");
  }
  if (!isWithin(configuration.minimumFrameIntervalFPS, kMaximumRate)) {
    throw X11Error("A rate of " + std::to_string(configuration.minimumFrameIntervalFPS) +
                   " frames per second cannot be captured.");
  }
  if (!isWithin(configuration.queueDepth, kMaximumDepth)) throw X11Error("The queue depth is out of range.");
  if (configuration.pixelFormat != PixelFormat::biPlanar420VideoRange) {
    throw X11Error("The pixel format cannot be captured.");
  }
}

Duration intervalOf(const ScreenStreamConfiguration& configuration) {
  return Duration(1s) / configuration.minimumFrameIntervalFPS;
}

DisplayID displayOf(const ContentFilter& filter) {
  if (filter.style != ContentFilter::Style::display || filter.includedDisplays.empty()) {
    throw X11Error("Only whole displays can be captured.");
  }
  return filter.includedDisplays.front().id;
}

PixelRect moved(const PixelRect& rectangle, int dx, int dy) {
  return {rectangle.x + dx, rectangle.y + dy, rectangle.width, rectangle.height};
}

}  // namespace

CaptureSession::CaptureSession(const X11Address& address, const ContentFilter& filter,
                               const ScreenStreamConfiguration& configuration,
                               std::function<void()> onRelease, std::shared_ptr<X11Interrupt> interrupt)
    : reader_(address, std::move(interrupt)), onRelease_(std::move(onRelease)), pacer_(Duration{}) {
  setConfiguration(configuration);
  setFilter(filter);
}

void CaptureSession::setConfiguration(const ScreenStreamConfiguration& configuration) {
  require(configuration);
  configuration_ = configuration;
  pacer_.setMinimumInterval(intervalOf(configuration));
  reader_.watchPointer(configuration.showsCursor);
  if (!configuration.showsCursor) reader_.cursor().hide();
  if (area_.width > 0) rebuild();
}

void CaptureSession::setFilter(const ContentFilter& filter) {
  const DisplayID display = displayOf(filter);
  const DisplayLayout layout = reader_.layout();
  const X11Display* found = layout.find(display);
  if (found == nullptr) throw X11Error("The display to capture is not there.");
  display_ = display;
  missingSince_.reset();
  takeArea(found->area);
}

void CaptureSession::takeArea(const PixelRect& area) {
  area_ = area;
  reader_.watch(area);
  rebuild();
}

void CaptureSession::rebuild() {
  Placement placement = Placement::letterbox;
  if (!configuration_.preservesAspectRatio) {
    placement = Placement::stretch;
  } else if (!configuration_.scalesToFit) {
    placement = Placement::letterboxDown;
  }
  converter_.emplace(area_.width, area_.height, configuration_.width, configuration_.height, placement);
  pool_.emplace(configuration_.width, configuration_.height, configuration_.queueDepth, onRelease_);
  isWholeDirty_ = true;
}

void CaptureSession::followLayout(Duration now) {
  if (reader_.takeLayoutChange()) mustReadLayout_ = true;
  if (mustReadLayout_) {
    mustReadLayout_ = false;
    const DisplayLayout layout = reader_.layout();
    const X11Display* found = layout.find(display_);
    if (found == nullptr) {
      if (!missingSince_) missingSince_ = now;
    } else {
      missingSince_.reset();
      if (found->area != area_) {
        takeArea(found->area);
        hasContentChanged_ = true;
      }
    }
  }
  if (missingSince_ && now - *missingSince_ >= kMissingGrace) {
    throw X11Error("The captured display is no longer there.");
  }
}

bool CaptureSession::isChangePending() const {
  return isWholeDirty_ || !dirty_.isEmpty() || !reader_.damage().isEmpty() ||
         (configuration_.showsCursor && reader_.mayCursorHaveChanged());
}

bool CaptureSession::isPointerCheckDue(Duration now) const {
  return configuration_.showsCursor && !reader_.isPointerWatched() && now >= nextPointerCheck_;
}

/// Nothing if there is no reason to wait for the end of a drawing.
std::optional<Duration> CaptureSession::drawingPause(bool isRequested) const {
  return isWholeDirty_ || isRequested ? std::nullopt : drawing_.pauseExpectedAt();
}

std::optional<VideoSample> CaptureSession::next(Duration now, bool isRequested) {
  reader_.readEvents();
  if (std::exchange(seenDamageReports_, reader_.damageReports()) != reader_.damageReports())
    drawing_.drawn(now);
  followLayout(now);
  if (now < drawingPause(isRequested).value_or(Duration::min())) return std::nullopt;
  if (missingSince_ || now < pacer_.earliest() || !pool_->isAvailable()) return std::nullopt;
  const bool isRepeatDue =
      now >= (isRequested ? pacer_.earliestRepeat() : pacer_.nextRepeat().value_or(Duration::max()));
  // The server does not report a cursor that a program moves instead of a device.
  const bool isCursorUnsure = configuration_.showsCursor && isRepeatDue;
  if (isChangePending() || isPointerCheckDue(now) || isCursorUnsure) {
    if (auto sample = capture(now)) {
      if (isRequested) pacer_.startedAnew();
      return sample;
    }
  }
  if (!isRepeatDue || !pool_->hasPicture() || mustReadLayout_) return std::nullopt;
  // The repeats of a still screen must not hide that the server hangs.
  reader_.requireAnswer();
  const Duration time = pacer_.timeOf(now);
  pacer_.delivered(time, 0);
  if (isRequested) pacer_.startedAnew();
  return makeSample(pool_->repeatPicture(), {}, time);
}

CaptureSession::Wait CaptureSession::wait(bool isRequested) const {
  Wait result;
  if (missingSince_) return {*missingSince_ + kMissingGrace, true};
  const bool isChanging = isChangePending() || mustReadLayout_;
  if (isChanging || isRequested) {
    result.listensToServer = false;
    if (!pool_->isAvailable()) return result;
    result.until = isChanging ? pacer_.earliest() : pacer_.earliestRepeat();
    if (const auto pause = drawingPause(isRequested); pause && *pause > *result.until) {
      return {pause, true};
    }
    return result;
  }
  if (pool_->isAvailable()) {
    result.until = pacer_.nextRepeat();
    if (configuration_.showsCursor && !reader_.isPointerWatched()) {
      result.until = std::min(result.until.value_or(Duration::max()), nextPointerCheck_);
    }
  }
  return result;
}

void CaptureSession::collectChanges(Duration now) {
  for (const PixelRect& damaged : reader_.damage().rectangles()) {
    dirty_.add(moved(damaged, -area_.x, -area_.y));
  }
  if (!configuration_.showsCursor) return;
  const PixelRect before = reader_.cursor().area();
  nextPointerCheck_ = now + kPointerCheck;
  if (!reader_.refreshCursor()) return;
  for (const PixelRect& cursor : {before, reader_.cursor().area()}) {
    dirty_.add(moved(intersection(cursor, area_), -area_.x, -area_.y));
  }
}

std::vector<CaptureSession::Part> CaptureSession::partsOf(const std::vector<PixelRect>& changes) const {
  std::vector<Part> parts;
  for (const PixelRect& change : changes) {
    // Even, as the chroma rows ask for.
    const int rows = std::max(16, kBandPixels / change.width / 2 * 2);
    for (int y = 0; y < change.height; y += rows) {
      const PixelRect band{change.x, change.y + y, change.width, std::min(rows, change.height - y)};
      parts.push_back({band, converter_->sourceFor(band)});
    }
  }
  return parts;
}

std::optional<VideoSample> CaptureSession::capture(Duration now) {
  collectChanges(now);
  DirtyRegion destination;
  if (isWholeDirty_) {
    destination.add(converter_->content());
  } else {
    for (const PixelRect& changed : dirty_.rectangles()) destination.add(converter_->destinationFor(changed));
  }
  reader_.forgetDamage();
  if (destination.isEmpty()) return std::nullopt;

  const PixelBuffer* picture = pool_->beginPicture(destination.rectangles());
  if (picture == nullptr) throw X11Error("There is no memory left for the picture.");
  const std::vector<Part> parts = partsOf(destination.rectangles());
  std::vector<PixelRect> areas;
  areas.reserve(parts.size());
  for (const Part& part : parts) areas.push_back(moved(part.source, area_.x, area_.y));
  const bool isComplete =
      reader_.read(areas, [&](std::size_t index, std::uint8_t* pixels, std::ptrdiff_t stride) {
        const Part& part = parts[index];
        reader_.cursor().draw(pixels, stride, areas[index]);
        converter_->convert({pixels, stride, part.source}, part.destination, *picture);
      });
  if (!isComplete) {
    // The screen has become smaller, and the news of it is under way.
    if (++failedReads_ > kMaximumFailedReads) throw X11Error("The picture of the display cannot be read.");
    isWholeDirty_ = true;
    mustReadLayout_ = true;
    return std::nullopt;
  }
  failedReads_ = 0;
  std::vector<PixelRect> changes = destination.rectangles();
  // The bars are new as well.
  if (isWholeDirty_) changes = {{0, 0, configuration_.width, configuration_.height}};
  isWholeDirty_ = false;
  dirty_.clear();
  const double pictureArea = static_cast<double>(configuration_.width) * configuration_.height;
  drawing_.captured(now);
  const Duration time = pacer_.timeOf(now);
  pacer_.delivered(time, static_cast<double>(destination.area()) / pictureArea);
  return makeSample(pool_->finishPicture(), std::move(changes), time);
}

VideoSample CaptureSession::makeSample(std::shared_ptr<PixelBuffer> picture, std::vector<PixelRect> changes,
                                       Duration now) {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  picture->changes = PictureChanges{sequence_++, std::move(changes)};
  VideoSample sample;
  sample.image = std::move(picture);
  sample.presentationMicroseconds = duration_cast<microseconds>(now).count();
  sample.durationMicroseconds = duration_cast<microseconds>(pacer_.minimumInterval()).count();
  return sample;
}

}  // namespace kestrune::linux_platform
