#include "platform/linux/capture/X11ScreenCapture.h"

#include <utility>

#include "platform/linux/capture/X11CaptureStream.h"
#include "platform/linux/x11/DisplayLayout.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {

X11ScreenCapture::X11ScreenCapture(std::string displayName)
    : displayName_(std::move(displayName)), queue_(std::make_unique<ThreadQueue>("x11-content")) {}

X11ScreenCapture::~X11ScreenCapture() = default;

void X11ScreenCapture::shareableContent(bool /*excludingDesktopWindows*/, bool /*onScreenWindowsOnly*/,
                                        ContentCompletion completion) {
  queue_->post([displayName = displayName_, completion = std::move(completion)] {
    ShareableContent content;
    try {
      const auto connection = X11Connection::open(displayName);
      const DisplayLayout layout = readDisplayLayout(*connection);
      for (const X11Display& display : layout.displays) {
        content.displays.push_back({display.id, layout.bounds(display)});
      }
    } catch (const X11Error&) {
      completion(std::nullopt, std::current_exception());
      return;
    }
    completion(std::move(content), nullptr);
  });
}

ContentFilter X11ScreenCapture::filterForDisplay(const ShareableDisplay& display) const {
  ContentFilter filter;
  filter.style = ContentFilter::Style::display;
  filter.contentRect = display.frame;
  filter.includedDisplays = {display};
  return filter;
}

std::unique_ptr<ScreenStream> X11ScreenCapture::createStream(const ContentFilter& filter,
                                                             const ScreenStreamConfiguration& configuration,
                                                             ScreenStream::StopHandler onStopped) {
  return std::make_unique<X11CaptureStream>(displayName_, filter, configuration, std::move(onStopped));
}

}  // namespace kestrune::linux_platform
