#include "platform/linux/space/SpaceScreenCapture.h"

#include <mutex>
#include <utility>

#include "platform/linux/space/SpaceStream.h"

namespace kestrune::linux_platform {
namespace {

/// The answers of several servers, in the order of the regions. It keeps no region alive: the last answer
/// comes on a server's own thread, on which the server cannot be ended.
class JoinedContent {
 public:
  JoinedContent(const std::vector<SharedRegion>& regions, ScreenCapture::ContentCompletion completion)
      : completion_(std::move(completion)), answers_(regions.size()) {
    for (const SharedRegion& region : regions)
      places_.push_back({region->id, region->origin, region->isDesktop()});
  }

  void take(std::size_t index, std::optional<ShareableContent> content, std::exception_ptr failure) {
    {
      const std::lock_guard guard(lock_);
      answers_[index] = {std::move(content), std::move(failure)};
      if (++count_ < answers_.size()) return;
    }
    // All have answered: this is the only call left.
    ShareableContent all;
    bool hasAnswer = false;
    for (std::size_t i = 0; i < answers_.size(); ++i) {
      if (!answers_[i].content) continue;
      hasAnswer = true;
      append(all, places_[i], *answers_[i].content);
    }
    if (hasAnswer) {
      completion_(std::move(all), nullptr);
    } else {
      completion_(std::nullopt, answers_.front().failure);
    }
  }

 private:
  struct Answer {
    std::optional<ShareableContent> content;
    std::exception_ptr failure;
  };

  struct Place {
    DisplayID id = 0;
    Point origin;
    bool isDesktop = true;
  };

  static void append(ShareableContent& all, const Place& place, const ShareableContent& content) {
    for (ShareableDisplay display : content.displays) {
      if (!place.isDesktop) display.id = place.id;
      display.frame.x += place.origin.x;
      display.frame.y += place.origin.y;
      all.displays.push_back(display);
      if (!place.isDesktop) return;  // the main one alone is part of the space
    }
  }

  std::vector<Place> places_;
  const ScreenCapture::ContentCompletion completion_;
  std::mutex lock_;  // guards the rest until all have answered
  std::vector<Answer> answers_;
  std::size_t count_ = 0;
};

}  // namespace

void SpaceScreenCapture::shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                                          ContentCompletion completion) {
  const auto regions = space_->regions();
  const auto joined = std::make_shared<JoinedContent>(regions, std::move(completion));
  for (std::size_t i = 0; i < regions.size(); ++i) {
    regions[i]->ports.screenCapture->shareableContent(
        excludingDesktopWindows, onScreenWindowsOnly,
        [joined, i](std::optional<ShareableContent> content, std::exception_ptr failure) {
          joined->take(i, std::move(content), std::move(failure));
        });
  }
}

ContentFilter SpaceScreenCapture::filterForDisplay(const ShareableDisplay& display) const {
  return space_->mainRegion()->ports.screenCapture->filterForDisplay(display);
}

std::unique_ptr<ScreenStream> SpaceScreenCapture::createStream(const ContentFilter& filter,
                                                               const ScreenStreamConfiguration& configuration,
                                                               ScreenStream::StopHandler onStopped) {
  return std::make_unique<SpaceStream>(space_, filter, configuration, std::move(onStopped));
}

}  // namespace kestrune::linux_platform
