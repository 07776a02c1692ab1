#include "platform/linux/capture/X11ScreenCapture.h"

#include <utility>

#include "platform/linux/capture/X11CaptureStream.h"

namespace kestrune::linux_platform {

X11ScreenCapture::X11ScreenCapture(std::shared_ptr<X11Server> server) : server_(std::move(server)) {}

void X11ScreenCapture::shareableContent(bool /*excludingDesktopWindows*/, bool /*onScreenWindowsOnly*/,
                                        ContentCompletion completion) {
  server_->refresh([completion = std::move(completion)](const X11Server::State& state) {
    if (!state.failure.empty()) {
      completion(std::nullopt, std::make_exception_ptr(X11Error(state.failure)));
      return;
    }
    ShareableContent content;
    for (const X11Display& display : state.layout.displays) {
      content.displays.push_back({display.id, state.layout.bounds(display)});
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
  return std::make_unique<X11CaptureStream>(server_, filter, configuration, std::move(onStopped));
}

}  // namespace kestrune::linux_platform
