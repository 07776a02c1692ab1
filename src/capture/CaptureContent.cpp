#include "capture/CaptureContent.h"

#include <algorithm>
#include <cmath>

#include "platform/Bundle.h"

namespace kestrune {
namespace {

using Kind = CaptureSourceDescriptor::Kind;

Kind kindOf(ContentFilter::Style style) {
  switch (style) {
    case ContentFilter::Style::window:
      return Kind::window;
    case ContentFilter::Style::display:
      return Kind::display;
    case ContentFilter::Style::application:
      return Kind::application;
    case ContentFilter::Style::none:
      break;
  }
  return Kind::unknown;
}

std::string defaultTitle(Kind kind) {
  switch (kind) {
    case Kind::window:
      return localized("Window");
    case Kind::display:
      return localized("Display");
    case Kind::application:
      return localized("Application");
    case Kind::unknown:
      break;
  }
  return localized("Shared Content");
}

/// What the first included content calls itself.
std::optional<std::string> ownTitle(const ContentFilter& filter) {
  if (!filter.includedWindows.empty()) {
    const auto& window = filter.includedWindows.front();
    return window.title ? window.title : window.owningApplicationName;
  }
  if (!filter.includedApplicationNames.empty()) return filter.includedApplicationNames.front();
  if (!filter.includedDisplays.empty()) {
    return localized("Display") + " " + std::to_string(filter.includedDisplays.front().id);
  }
  return std::nullopt;
}

double overlapArea(const Rect& a, const Rect& b) {
  const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  return width > 0 && height > 0 ? width * height : 0;
}

std::int64_t pixels(double points, double scale) {
  return std::llround(points * scale);
}

}  // namespace

CaptureSourceDescriptor describeContent(const ContentFilter& filter,
                                        const std::optional<std::string>& title) {
  const Kind kind = kindOf(filter.style);
  if (title) return {*title, kind};
  return {ownTitle(filter).value_or(defaultTitle(kind)), kind};
}

std::optional<DisplayID> displayOfContent(const ContentFilter& filter, const Displays& displays) {
  if (filter.style != ContentFilter::Style::display) return std::nullopt;
  if (!filter.includedDisplays.empty()) return filter.includedDisplays.front().id;
  std::optional<DisplayID> best;
  double bestArea = 0;
  for (const DisplayID display : displays.activeDisplays()) {
    const double area = overlapArea(displays.bounds(display), filter.contentRect);
    if (area <= bestArea) continue;
    best = display;
    bestArea = area;
  }
  return best;
}

std::optional<RemoteControlTarget> controlTargetOfContent(const ContentFilter& filter,
                                                          const Displays& displays) {
  if (filter.style != ContentFilter::Style::display) return std::nullopt;
  const Rect frame =
      filter.includedDisplays.empty() ? filter.contentRect : filter.includedDisplays.front().frame;
  if (!(frame.width > 0 && frame.height > 0)) return std::nullopt;
  return RemoteControlTarget{frame, displayOfContent(filter, displays)};
}

std::optional<ContentFilter> followingDisplay(const ContentFilter& filter, const Displays& displays) {
  if (filter.style != ContentFilter::Style::display || filter.includedDisplays.empty()) return std::nullopt;
  const Rect present = displays.bounds(filter.includedDisplays.front().id);
  if (!(present.width > 0 && present.height > 0) || present == filter.includedDisplays.front().frame)
    return std::nullopt;
  ContentFilter following = filter;
  following.contentRect = present;
  following.includedDisplays.front().frame = present;
  return following;
}

ScreenStreamConfiguration streamConfiguration(const ContentFilter& filter, StreamProfile profile,
                                              StreamFrameRate frameRate, AudioChannelMode audioMode,
                                              bool showsCursor, bool capturesProcessAudio) {
  const auto size = CaptureDimensions::fitting(pixels(filter.contentRect.width, filter.pointPixelScale),
                                               pixels(filter.contentRect.height, filter.pointPixelScale),
                                               longEdgeLimit(profile));
  ScreenStreamConfiguration configuration;
  configuration.width = static_cast<int>(size.width);
  configuration.height = static_cast<int>(size.height);
  configuration.minimumFrameIntervalFPS = framesPerSecond(frameRate);
  configuration.queueDepth = 3;
  configuration.pixelFormat = PixelFormat::biPlanar420VideoRange;
  configuration.sRGBColorSpace = true;
  configuration.colorMatrixITU709 = true;
  configuration.scalesToFit = true;
  configuration.preservesAspectRatio = true;
  configuration.showsCursor = showsCursor;
  configuration.capturesAudio = true;
  configuration.sampleRate = 48000;
  configuration.channelCount = channelCount(audioMode);
  configuration.excludesCurrentProcessAudio = !capturesProcessAudio;
  configuration.streamName = "Kestrune";
  configuration.captureMicrophone = false;
  configuration.standardDynamicRange = true;
  return configuration;
}

}  // namespace kestrune
