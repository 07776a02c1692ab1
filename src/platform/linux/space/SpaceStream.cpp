#include "platform/linux/space/SpaceStream.h"

#include <mutex>
#include <utility>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {
namespace {

std::exception_ptr failure(const char* text) {
  return std::make_exception_ptr(X11Error(text));
}

/// Whose display a filter shows; the desktop's server answers for those that are not there.
SharedRegion regionOf(const DisplaySpace& space, const ContentFilter& filter) {
  const SharedRegion found =
      filter.includedDisplays.empty() ? nullptr : space.regionOf(filter.includedDisplays.front().id);
  return found ? found : space.regions().front();
}

ContentFilter toLocal(const Region& region, ContentFilter filter) {
  filter.contentRect = region.toLocal(filter.contentRect);
  for (ShareableDisplay& display : filter.includedDisplays) {
    display.id = region.localDisplay(display.id).value_or(display.id);
    display.frame = region.toLocal(display.frame);
  }
  return filter;
}

void complete(const StreamCompletion& completion, std::exception_ptr outcome) {
  if (completion) completion(std::move(outcome));
}

}  // namespace

/// Shared by the owner and the servers' streams, which call from threads of their own.
class SpaceStream::Core : public std::enable_shared_from_this<Core> {
 public:
  using SharedStream = std::shared_ptr<ScreenStream>;

  Core(std::shared_ptr<const DisplaySpace> space, const ContentFilter& filter,
       const ScreenStreamConfiguration& configuration, StopHandler onStopped)
      : space_(std::move(space)),
        onStopped_(std::move(onStopped)),
        filter_(filter),
        configuration_(configuration) {}

  void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) {
    const std::lock_guard guard(lock_);
    requireIdle();
    videoQueue_ = std::move(queue);
    videoOutput_ = std::move(output);
  }
  void addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) {
    const std::lock_guard guard(lock_);
    requireIdle();
    audioQueue_ = std::move(queue);
    audioOutput_ = std::move(output);
  }
  void setContentChangeHandler(ContentChangeHandler handler) {
    const std::lock_guard guard(lock_);
    if (state_ == State::idle) onContentChanged_ = std::move(handler);
  }
  void start(StreamCompletion completion);
  void stop(StreamCompletion completion);
  void update(const ScreenStreamConfiguration& configuration, StreamCompletion completion);
  void update(const ContentFilter& filter, StreamCompletion completion);
  void requestFrame() {
    if (const SharedStream shown = this->shown()) shown->requestFrame();
  }
  void endFromOwner();

 private:
  enum class State { idle, running, ended };
  using Generation = std::uint64_t;

  void requireIdle() const {
    if (state_ != State::idle) throw X11Error("Outputs are added before the start.");
  }
  SharedStream shown() {
    const std::lock_guard guard(lock_);
    return shown_;
  }
  bool isShown(Generation generation) {
    const std::lock_guard guard(lock_);
    return state_ == State::running && generation == shownGeneration_;
  }
  /// A stream of the region's server with the outputs, which get what it delivers while it is shown.
  SharedStream make(const Region& region, const ContentFilter& filter,
                    const ScreenStreamConfiguration& configuration, Generation generation);
  void switchTo(const Region& region, const ContentFilter& filter, StreamCompletion completion);
  void finishSwitch(const ScreenStreamConfiguration& used, const StreamCompletion& completion,
                    const std::exception_ptr& outcome);
  void onStopped(Generation generation, const std::exception_ptr& reason);

  const std::shared_ptr<const DisplaySpace> space_;
  const StopHandler onStopped_;

  std::mutex lock_;  // guards the rest; the outputs and handlers do not change after the start
  State state_ = State::idle;
  ContentFilter filter_;
  ScreenStreamConfiguration configuration_;
  DisplayID region_ = 0;  // Region::id of shown_
  std::shared_ptr<SerialQueue> videoQueue_;
  VideoOutput videoOutput_;
  std::shared_ptr<SerialQueue> audioQueue_;
  AudioOutput audioOutput_;
  ContentChangeHandler onContentChanged_;
  SharedStream shown_;
  Generation shownGeneration_ = 0;
  SharedStream next_;            // of a switch that is under way
  DisplayID nextRegion_ = 0;     // Region::id of next_
  std::exception_ptr shownEnd_;  // why shown_ ended by itself during the switch
};

SpaceStream::Core::SharedStream SpaceStream::Core::make(const Region& region, const ContentFilter& filter,
                                                        const ScreenStreamConfiguration& configuration,
                                                        Generation generation) {
  const std::weak_ptr<Core> weak = weak_from_this();
  SharedStream stream = region.ports.screenCapture->createStream(
      toLocal(region, filter), configuration, [weak, generation](const std::exception_ptr& reason) {
        if (const auto self = weak.lock()) self->onStopped(generation, reason);
      });
  if (videoQueue_) {
    stream->addVideoOutput(videoQueue_, [weak, generation](VideoSample sample) {
      const auto self = weak.lock();
      if (self && self->isShown(generation)) self->videoOutput_(std::move(sample));
    });
  }
  if (audioQueue_) {
    stream->addAudioOutput(audioQueue_, [weak, generation](AudioSample sample) {
      const auto self = weak.lock();
      if (self && self->isShown(generation)) self->audioOutput_(std::move(sample));
    });
  }
  stream->setContentChangeHandler([weak, generation] {
    const auto self = weak.lock();
    if (self && self->isShown(generation) && self->onContentChanged_) self->onContentChanged_();
  });
  return stream;
}

void SpaceStream::Core::start(StreamCompletion completion) {
  const SharedRegion region = [this] {
    const std::lock_guard guard(lock_);
    return regionOf(*space_, filter_);
  }();
  SharedStream stream;
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::idle) {
      state_ = State::running;
      region_ = region->id;
      shown_ = stream = make(*region, filter_, configuration_, shownGeneration_);
    }
  }
  if (stream) {
    stream->startCapture(std::move(completion));
  } else {
    complete(completion, failure("The stream was started before."));
  }
}

void SpaceStream::Core::stop(StreamCompletion completion) {
  SharedStream shown;
  SharedStream next;
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::running) {
      state_ = State::ended;
      shown = shown_;
      next = std::exchange(next_, nullptr);
    }
  }
  if (next) next->stopCapture([next](const std::exception_ptr&) {});
  if (shown) {
    shown->stopCapture(std::move(completion));
  } else {
    complete(completion, failure("The stream is not running."));
  }
}

void SpaceStream::Core::update(const ScreenStreamConfiguration& configuration, StreamCompletion completion) {
  SharedStream shown;
  bool isOver = false;
  {
    const std::lock_guard guard(lock_);
    isOver = state_ == State::ended;
    if (!isOver) configuration_ = configuration;
    shown = shown_;
  }
  if (shown && !isOver) {
    shown->updateConfiguration(configuration, std::move(completion));
  } else {
    complete(completion, isOver ? failure("The stream is not running.") : nullptr);
  }
}

void SpaceStream::Core::update(const ContentFilter& filter, StreamCompletion completion) {
  const SharedRegion region = regionOf(*space_, filter);
  std::exception_ptr outcome;
  SharedStream shown;
  bool isSwitch = false;
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::ended) {
      outcome = failure("The stream is not running.");
    } else if (next_) {
      outcome = failure("The stream is being switched to another display.");
    } else if (state_ == State::idle) {
      filter_ = filter;
    } else {
      isSwitch = region->id != region_;
      shown = shown_;
    }
  }
  if (isSwitch) {
    switchTo(*region, filter, std::move(completion));
  } else if (shown) {
    shown->updateContentFilter(toLocal(*region, filter), std::move(completion));
  } else {
    complete(completion, outcome);
  }
}

void SpaceStream::Core::switchTo(const Region& region, const ContentFilter& filter,
                                 StreamCompletion completion) {
  SharedStream next;
  ScreenStreamConfiguration used;
  {
    const std::lock_guard guard(lock_);
    used = configuration_;
    next_ = next = make(region, filter, used, shownGeneration_ + 1);
    nextRegion_ = region.id;
    shownEnd_ = nullptr;
  }
  next->startCapture([self = shared_from_this(), used,
                      completion = std::move(completion)](const std::exception_ptr& outcome) {
    self->finishSwitch(used, completion, outcome);
  });
}

/// On a thread of the new stream.
void SpaceStream::Core::finishSwitch(const ScreenStreamConfiguration& used,
                                     const StreamCompletion& completion, const std::exception_ptr& outcome) {
  SharedStream before;
  SharedStream now;
  std::exception_ptr refusal = outcome;
  std::exception_ptr end;
  ScreenStreamConfiguration wanted;
  {
    const std::lock_guard guard(lock_);
    const SharedStream next = std::exchange(next_, nullptr);
    end = std::exchange(shownEnd_, nullptr);
    wanted = configuration_;
    if (!refusal && !next) refusal = failure("The stream is not running.");  // stopped meanwhile
    if (refusal) {
      before = next;
      if (end) state_ = State::ended;
    } else {
      now = next;
      before = std::exchange(shown_, next);
      region_ = nextRegion_;
      ++shownGeneration_;
    }
  }
  if (now && used != wanted) now->updateConfiguration(wanted, [](const std::exception_ptr&) {});
  // Its own completion keeps it: it may end on its own thread only.
  if (now && before) before->stopCapture([before](const std::exception_ptr&) {});
  complete(completion, refusal);
  if (!now && end && onStopped_) onStopped_(end);
}

void SpaceStream::Core::onStopped(Generation generation, const std::exception_ptr& reason) {
  {
    const std::lock_guard guard(lock_);
    if (state_ != State::running || generation != shownGeneration_) return;
    if (next_) {
      shownEnd_ = reason;  // of interest only if the switch fails
      return;
    }
    state_ = State::ended;
  }
  if (onStopped_) onStopped_(reason);
}

void SpaceStream::Core::endFromOwner() {
  SharedStream shown;
  SharedStream next;
  const std::lock_guard guard(lock_);
  state_ = State::ended;
  shown = std::exchange(shown_, nullptr);
  next = std::exchange(next_, nullptr);
}

SpaceStream::SpaceStream(std::shared_ptr<const DisplaySpace> space, const ContentFilter& filter,
                         const ScreenStreamConfiguration& configuration, StopHandler onStopped)
    : core_(std::make_shared<Core>(std::move(space), filter, configuration, std::move(onStopped))) {}

SpaceStream::~SpaceStream() {
  core_->endFromOwner();
}

void SpaceStream::addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) {
  core_->addVideoOutput(std::move(queue), std::move(output));
}

void SpaceStream::addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) {
  core_->addAudioOutput(std::move(queue), std::move(output));
}

void SpaceStream::setContentChangeHandler(ContentChangeHandler handler) {
  core_->setContentChangeHandler(std::move(handler));
}

void SpaceStream::startCapture(StreamCompletion completion) {
  core_->start(std::move(completion));
}

void SpaceStream::stopCapture(StreamCompletion completion) {
  core_->stop(std::move(completion));
}

void SpaceStream::updateConfiguration(const ScreenStreamConfiguration& configuration,
                                      StreamCompletion completion) {
  core_->update(configuration, std::move(completion));
}

void SpaceStream::updateContentFilter(const ContentFilter& filter, StreamCompletion completion) {
  core_->update(filter, std::move(completion));
}

void SpaceStream::requestFrame() {
  core_->requestFrame();
}

}  // namespace kestrune::linux_platform
