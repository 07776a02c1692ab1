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
  ++selectionGeneration_;
  if (!stream_) {
    selection_ = std::move(selection);
    nextSelection_ = nullptr;
    announce(selection_);
    return;
  }
  nextSelection_ = std::move(selection);
  media_->deliver(&ScreenCaptureCallbacks::onControlTargetChanged, std::optional<RemoteControlTarget>());
  SelectionUpdate update{stream_, selection_, nextSelection_, selectionGeneration_, pendingSelectionUpdate_};
  pendingSelectionUpdate_ =
      startTask(dependencies_.callbackQueue, runSelectionUpdate(shared_from_this(), std::move(update)));
}

Task<void> ScreenCaptureService::runSelectionUpdate(std::shared_ptr<ScreenCaptureService> self,
                                                    SelectionUpdate update) {
  co_await update.previous.finished();
  update.previous.reset();

  auto change = outcomeOf([&update](StreamCompletion completion) {
    update.stream->updateContentFilter(update.next->filter, std::move(completion));
  });
  const std::exception_ptr failure = co_await change;
  const bool isLatest = self->selectionGeneration_ == update.generation;
  if (isLatest) {
    if (!failure) self->selection_ = update.next;
    self->nextSelection_ = nullptr;
    self->announce(failure ? update.before : update.next);
  }
  if (failure) {
    self->media_->reportError(
        std::make_exception_ptr(operationFailed("Unable to change the capture source: %@", failure)));
    co_return;
  }
  if (self->stream_ && self->stream_ != update.stream) {
    // The stream was replaced meanwhile, by one of the selection before.
    if (isLatest) self->select(update.next);
    co_return;
  }

  StreamSettings used;
  do {
    used = self->settings_;
    const auto configuration =
        streamConfiguration(update.next->filter, used.video.profile, used.video.frameRate, used.audioMode,
                            used.showsCursor, update.next->capturesProcessAudio);
    auto resize = outcomeOf([&update, &configuration](StreamCompletion completion) {
      update.stream->updateConfiguration(configuration, std::move(completion));
    });
    const std::exception_ptr refusal = co_await resize;
    if (refusal) {
      self->media_->reportError(std::make_exception_ptr(
          operationFailed("Unable to resize the changed capture source: %@", refusal)));
      co_return;
    }
    // A change of the settings that was under way may have been overwritten.
  } while (self->stream_ == update.stream && used != self->settings_);
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

ScreenCaptureService::SharedSelection ScreenCaptureService::followDisplay() {
  if (SharedSelection present = following(selection_)) {
    selection_ = std::move(present);
    announce(selection_);
  }
  return selection_;
}

/// Asks for pictures of the display's new shape: bars in them would count as part of the display for a viewer
/// that points at something.
void ScreenCaptureService::followContent(const SharedLink& link) {
  if (link_ != link) {
    link->hasContentChanged = true;  // its start, if that is still under way, sees to it
  } else if (auto present = following(newestSelection())) {
    select(std::move(present));
  }
}

void ScreenCaptureService::announce(const SharedSelection& selection) {
  std::optional<CaptureSourceDescriptor> source;
  std::optional<RemoteControlTarget> target;
  if (selection) {
    source = describeContent(selection->filter, selection->title);
    target = controlTargetOfContent(selection->filter, *dependencies_.displays);
  }
  media_->deliver(&ScreenCaptureCallbacks::onSourceChanged, std::move(source));
  media_->deliver(&ScreenCaptureCallbacks::onControlTargetChanged, target);
}

bool ScreenCaptureService::clearManagedSelection(DisplayID display) {
  if (stream_ || isStarting() || !selection_ || selection_->managedDisplay != display) return false;
  ++selectionGeneration_;
  selection_ = nullptr;
  nextSelection_ = nullptr;
  return true;
}

std::optional<DisplayID> ScreenCaptureService::selectedDisplayID() const {
  if (!selection_ || selection_->managedDisplay) return std::nullopt;
  return displayOfContent(selection_->filter, *dependencies_.displays);
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
  media_->reportError(
      std::make_exception_ptr(operationFailed("Unable to show the screen picker: %@", failure)));
}

}  // namespace kestrune
