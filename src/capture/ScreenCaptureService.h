#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "capture/AudioSampleConverter.h"
#include "capture/CaptureMedia.h"
#include "capture/CapturePreviewHub.h"
#include "capture/ScreenCaptureCallbacks.h"
#include "capture/StreamVideoEncoder.h"
#include "platform/Displays.h"
#include "platform/ScreenStream.h"
#include "runtime/Task.h"

namespace kestrune {

/// Holds the one capture stream of the program: the selected source, the running stream of picture and sound,
/// the encoder that its frames go to, and the counters. Source and stream survive changes of the video
/// settings, of the selected content, and of the mode of the display that is shown.
///
/// A plain object of its owner; make it with std::make_shared. Everything belongs to the callback queue,
/// which the owner keeps at least as long; what may be called from any thread says so. Operations that wait
/// for the system are tasks, which keep the service alive from their first turn on and throw KestruneError;
/// everything else returns at once. What the system reports on its own threads is taken up on the callback
/// queue.
class ScreenCaptureService final : public std::enable_shared_from_this<ScreenCaptureService> {
 public:
  static constexpr const char* kVideoQueueLabel = "com.fennwick.Kestrune.capture.video";
  static constexpr const char* kAudioQueueLabel = "com.fennwick.Kestrune.capture.audio";

  struct Dependencies {
    std::shared_ptr<ScreenCapture> capture;
    std::shared_ptr<const Displays> displays;
    std::shared_ptr<const Clock> clock;
    std::shared_ptr<CompressionSessionFactory> compression;
    std::shared_ptr<PixelTransferFactory> pixelTransfer;
    /// The owner's queue; the main queue in this program.
    std::shared_ptr<SerialQueue> callbackQueue;
    /// Makes the two capture queues and one queue for each encoder.
    std::function<std::shared_ptr<SerialQueue>(std::string label)> makeQueue;
    // Those below may be absent.
    std::shared_ptr<ContentSharingPicker> picker;
    std::shared_ptr<CapturePreviewHub> previewHub;
    std::shared_ptr<AudioSampleConverter> audioConverter;
    std::optional<std::string> bundleIdentifier;
  };

  using VideoSettings = StreamVideoEncoder::Settings;
  struct StreamSettings {
    VideoSettings video;
    AudioChannelMode audioMode = AudioChannelMode::stereo;
    bool showsCursor = true;
    friend bool operator==(const StreamSettings&, const StreamSettings&) = default;
  };

  explicit ScreenCaptureService(Dependencies dependencies);
  ~ScreenCaptureService();
  ScreenCaptureService(const ScreenCaptureService&) = delete;
  ScreenCaptureService& operator=(const ScreenCaptureService&) = delete;

  /// Once, before the first operation.
  void setCallbacks(ScreenCaptureCallbacks callbacks) { media_->setCallbacks(std::move(callbacks)); }

  /// Selects a whole display, found by its identifier. `managed`: a display that the program made itself;
  /// `capturesProcessAudio`: the program's own sound belongs to the source. Throws operationFailed if the
  /// display is not there; the selection is then unchanged.
  Task<void> selectDisplay(DisplayID display, std::optional<std::string> title, bool managed,
                           bool capturesProcessAudio);
  /// Selects any content. On a running stream the change happens behind earlier changes and is announced when
  /// it is through; until then there is no control target. A later selection overtakes an earlier one.
  void selectFilter(const ContentFilter& filter, std::optional<std::string> title,
                    std::optional<DisplayID> managedDisplay, bool capturesProcessAudio);
  /// Forgets the selection if it is this managed display and no stream runs; returns whether it did. The
  /// owner announces that there is no source.
  bool clearManagedSelection(DisplayID display);
  /// The display of the selection; none if nothing, something else, or a managed display is selected.
  std::optional<DisplayID> selectedDisplayID() const;

  /// Starts the stream, with encoding off. Throws alreadyRunning, noSource or operationFailed.
  Task<void> start(StreamSettings settings);
  /// Changes quality without stopping the stream; without a stream the settings are kept for later. Throws
  /// operationFailed; the stream then goes on as before.
  ///
  /// `onAccepted` is called once when nothing can refuse the change any more, also where the stream has ended
  /// meanwhile: behind the last packet of the old encoder, but for one that is being delivered at that
  /// moment, and before the new encoder can give its first. It is not called for a change that fails, nor in
  /// a task that was cancelled. It must not throw.
  Task<void> updateVideoSettings(VideoSettings settings, std::function<void()> onAccepted = {});
  /// Ends the stream. Throws operationFailed if the system failed to; the stream is let go all the same.
  Task<void> stop();
  bool isRunning() const { return stream_ != nullptr; }
  /// The encoder has failed, and given no packet since. Any thread.
  bool isEncodingFailing() const { return media_->isEncodingFailing(); }

  /// Whether frames go to the encoder. Turning it on, also once more, gives a keyframe at the next frame, and
  /// asks for that frame.
  void setVideoEncodingEnabled(bool enabled);
  /// The next encoded frame is a keyframe; it is asked for, so that a still screen does not delay it.
  /// Any thread.
  void requestKeyframe() { media_->requestKeyframe(); }

  /// The counters of the running stream, or of the last one. Any thread.
  StreamMetrics metrics() const { return media_->metrics(); }

  // What the system's picker reports.
  void pickerDidUpdate(const ContentFilter& filter);
  void pickerDidCancel();
  void pickerStartDidFail(const std::exception_ptr& failure);

 private:
  struct Selection {
    ContentFilter filter;
    std::optional<std::string> title;
    std::optional<DisplayID> managedDisplay;
    bool capturesProcessAudio = false;
  };
  using SharedSelection = std::shared_ptr<const Selection>;
  using SharedStream = std::shared_ptr<ScreenStream>;
  using SharedLink = std::shared_ptr<StreamLink>;
  /// One change of the source on its way.
  struct SelectionUpdate {
    SharedStream stream;
    SharedSelection before;
    SharedSelection next;
    std::uint64_t generation = 0;
    TaskHandle previous;
  };

  // Selection (ScreenCaptureSelection.cpp)
  static Task<void> runSelectionUpdate(std::shared_ptr<ScreenCaptureService> self, SelectionUpdate update);
  void select(SharedSelection selection);
  /// The selection with its display's present place and size; null if it says just that.
  SharedSelection following(const SharedSelection& selection) const;
  /// The same for the selection of a stream that is about to start; announces a new one.
  SharedSelection followDisplay();
  void followContent(const SharedLink& link);
  void announce(const SharedSelection& selection);
  /// The newest, whether its change is through or not.
  const SharedSelection& newestSelection() const { return nextSelection_ ? nextSelection_ : selection_; }

  SharedStream makeStream(const Selection& selection, const StreamSettings& settings, const SharedLink& link);
  std::shared_ptr<StreamVideoEncoder> makeEncoder(const VideoSettings& settings);
  void adopt(SharedStream stream, SharedLink link, std::shared_ptr<StreamVideoEncoder> encoder,
             StreamSettings settings);
  /// Lets go of the running stream; gives it, to be ended.
  SharedStream dropStream();
  void publish();
  void handleStreamStopped(const SharedLink& link, const std::exception_ptr& failure);
  void configurePicker(ScreenStream& stream);
  void setPickerActive(bool active);
  bool isStarting() const { return !starting_.expired(); }

  const Dependencies dependencies_;
  const std::shared_ptr<CaptureMedia> media_;

  SharedSelection selection_;
  /// Counts changes of the selection: a late result of an earlier one changes nothing.
  std::uint64_t selectionGeneration_ = 0;
  TaskHandle pendingSelectionUpdate_;
  SharedSelection nextSelection_;  // of the newest change that is not through

  // Set and cleared together:
  SharedStream stream_;
  SharedLink link_;
  std::shared_ptr<StreamVideoEncoder> encoder_;
  StreamSettings settings_;  // of the running stream
  bool videoEncodingEnabled_ = false;
  std::weak_ptr<void> starting_;  // held by a start until it is through, or its task abandoned on any thread
};

}  // namespace kestrune
