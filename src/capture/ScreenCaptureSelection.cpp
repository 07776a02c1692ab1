// What the capture service shows, and how that changes under a running stream.

#include <utility>

#include "capture/CaptureContent.h"
#include "capture/ScreenCaptureService.h"
#include "capture/StreamOutcome.h"

namespace kestrune {

Task<void> ScreenCaptureService::selectDisplay(DisplayID display, std::optional<std::string> title,
                                               bool managed, bool capturesProcessAudio) {
  const auto self = shared_from_this();
  auto ask = [capture = dependencies_.capture](Completion<ShareableContent> done) {
    capture->shareableContent(
        false, false,
        [done = std::move(done)](std::optional<ShareableContent> content, const std::exception_ptr& failure) {
          if (failure) {
            done.fail(failure);
          } else {
            done(std::move(content).value_or(ShareableContent{}));
          }
        });
  };
  ShareableContent content;
  try {
    content = co_await awaitCallback<ShareableContent>(ask);
  } catch (...) {
    throw operationFailed("Unable to find the selected display: %@", std::current_exception());
  }
  for (const auto& candidate : content.displays) {
    if (candidate.id != display) continue;
    const auto managedDisplay = managed ? std::optional(display) : std::nullopt;
    selectFilter(dependencies_.capture->filterForDisplay(candidate), std::move(title), managedDisplay,
                 capturesProcessAudio);
    co_return;
  }
  throw KestruneError::operationFailed(
      localized("The selected display is not available to ScreenCaptureKit yet."));
}

void ScreenCaptureService::selectFilter(const ContentFilter& filter, std::optional<std::string> title,
                                        std::optional<DisplayID> managedDisplay, bool capturesProcessAudio) {
  select(std::make_shared<const Selection>(
      Selection{filter, std::move(title), managedDisplay, capturesProcessAudio}));
}

void ScreenCaptureService::select(SharedSelection selection) {
  SelectionUpdate update;
  update.next = std::move(selection);
  {
    const std::lock_guard guard(stateLock_);
    update.generation = ++selectionGeneration_;
    update.stream = stream_;
    update.before = selection_;
    nextSelection_ = stream_.platform ? update.next : nullptr;
    if (!stream_.platform) selection_ = update.next;
  }
  if (!update.stream.platform) {
    announce(update.next);
    return;
  }
  deliver(&ScreenCaptureCallbacks::onControlTargetChanged, std::optional<RemoteControlTarget>());
  const std::lock_guard guard(stateLock_);
  update.previous = pendingSelectionUpdate_;
  pendingSelectionUpdate_ =
      startTask(dependencies_.callbackQueue, runSelectionUpdate(shared_from_this(), std::move(update)));
}

Task<void> ScreenCaptureService::runSelectionUpdate(std::shared_ptr<ScreenCaptureService> self,
                                                    SelectionUpdate update) {
  co_await update.previous.finished();
  update.previous.reset();

  auto change = outcomeOf([&update](StreamCompletion completion) {
    update.stream.platform->updateContentFilter(update.next->filter, std::move(completion));
  });
  const std::exception_ptr failure = co_await change;
  bool isLatest = false;
  bool hasOtherStream = false;
  StreamSettings settings;
  {
    const std::lock_guard guard(self->stateLock_);
    isLatest = self->selectionGeneration_ == update.generation;
    hasOtherStream = self->stream_.platform && self->stream_.platform != update.stream.platform;
    settings = self->settings_;
    if (isLatest && !failure) self->selection_ = update.next;
    if (isLatest) self->nextSelection_ = nullptr;
  }
  if (isLatest) self->announce(failure ? update.before : update.next);
  if (failure) {
    self->reportError(
        std::make_exception_ptr(operationFailed("Unable to change the capture source: %@", failure)));
    co_return;
  }
  if (hasOtherStream) {
    // The stream was replaced meanwhile, by one of the selection before.
    if (isLatest) self->select(update.next);
    co_return;
  }

  for (bool isSettled = false; !isSettled;) {
    const auto configuration =
        streamConfiguration(update.next->filter, settings.video.profile, settings.video.frameRate,
                            settings.audioMode, settings.showsCursor, update.next->capturesProcessAudio);
    auto resize = outcomeOf([&update, &configuration](StreamCompletion completion) {
      update.stream.platform->updateConfiguration(configuration, std::move(completion));
    });
    const std::exception_ptr refusal = co_await resize;
    if (refusal) {
      self->reportError(std::make_exception_ptr(
          operationFailed("Unable to resize the changed capture source: %@", refusal)));
      co_return;
    }
    // A change of the settings that was under way may have been overwritten.
    const std::lock_guard guard(self->stateLock_);
    const StreamSettings used = std::exchange(settings, self->settings_);
    isSettled = self->stream_.platform != update.stream.platform || used == settings;
  }
  self->requestKeyframe();
}

// The display's mode

ScreenCaptureService::SharedSelection ScreenCaptureService::following(
    const SharedSelection& selection) const {
  auto filter = followingDisplay(selection->filter, *dependencies_.displays);
  if (!filter) return nullptr;
  auto next = std::make_shared<Selection>(*selection);
  next->filter = *std::move(filter);
  return next;
}

/// The display may have changed since it was selected.
ScreenCaptureService::SharedSelection ScreenCaptureService::selectionForStart(SharedSelection selection) {
  SharedSelection present = following(selection);
  if (!present) return selection;
  {
    const std::lock_guard guard(stateLock_);
    if (selection_ != selection) return selection;  // start() takes the new one over
    selection_ = present;
  }
  announce(present);
  return present;
}

void ScreenCaptureService::handleContentChanged(const std::shared_ptr<Link>& link) {
  dependencies_.callbackQueue->post([weak = weak_from_this(), link] {
    if (const auto self = weak.lock()) self->followContent(link);
  });
}

/// Asks for pictures of the display's new shape: bars in them would count as part of the display for a viewer
/// that points at something.
void ScreenCaptureService::followContent(const std::shared_ptr<Link>& link) {
  SharedSelection selection;
  {
    const std::lock_guard guard(stateLock_);
    if (stream_.link != link) {
      link->hasContentChanged = true;  // its start, if that is still under way, sees to it
      return;
    }
    selection = nextSelection_ ? nextSelection_ : selection_;
  }
  if (auto present = following(selection)) select(std::move(present));
}

void ScreenCaptureService::announce(const SharedSelection& selection) {
  std::optional<CaptureSourceDescriptor> source;
  std::optional<RemoteControlTarget> target;
  if (selection) {
    source = describeContent(selection->filter, selection->title);
    target = controlTargetOfContent(selection->filter, *dependencies_.displays);
  }
  deliver(&ScreenCaptureCallbacks::onSourceChanged, std::move(source));
  deliver(&ScreenCaptureCallbacks::onControlTargetChanged, target);
}

bool ScreenCaptureService::clearManagedSelection(DisplayID display) {
  const std::lock_guard guard(stateLock_);
  if (stream_.platform || isStarting_ || !selection_ || selection_->managedDisplay != display) return false;
  ++selectionGeneration_;
  selection_ = nullptr;
  nextSelection_ = nullptr;
  return true;
}

std::optional<DisplayID> ScreenCaptureService::selectedDisplayID() const {
  SharedSelection selection;
  {
    const std::lock_guard guard(stateLock_);
    selection = selection_;
  }
  if (!selection || selection->managedDisplay) return std::nullopt;
  return displayOfContent(selection->filter, *dependencies_.displays);
}

void ScreenCaptureService::pickerDidUpdate(const ContentFilter& filter) {
  selectFilter(filter, std::nullopt, std::nullopt, false);
  setPickerActive(false);
}

void ScreenCaptureService::pickerDidCancel() {
  setPickerActive(false);
}

void ScreenCaptureService::pickerStartDidFail(const std::exception_ptr& failure) {
  setPickerActive(false);
  reportError(std::make_exception_ptr(operationFailed("Unable to show the screen picker: %@", failure)));
}

}  // namespace kestrune
