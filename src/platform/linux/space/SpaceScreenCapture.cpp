#include "platform/linux/space/SpaceScreenCapture.h"

#include <mutex>
#include <utility>

#include "platform/linux/space/SpaceStream.h"

namespace kestrune::linux_platform {
namespace {

/// The answers of several servers, in the order of the regions.
class JoinedContent {
 public:
  JoinedContent(DisplaySpace::Regions regions, ScreenCapture::ContentCompletion completion)
      : regions_(std::move(regions)), completion_(std::move(completion)), answers_(regions_->size()) {}

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
      append(all, *(*regions_)[i], *answers_[i].content);
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

  static void append(ShareableContent& all, const Region& region, const ShareableContent& content) {
    for (const ShareableDisplay& display : content.displays) {
      const auto id = region.globalDisplay(display.id);
      if (id) all.displays.push_back({*id, region.toGlobal(display.frame)});
    }
  }

  const DisplaySpace::Regions regions_;
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
  for (std::size_t i = 0; i < regions->size(); ++i) {
    (*regions)[i]->ports.screenCapture->shareableContent(
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
