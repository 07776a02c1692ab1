#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "capture/AudioSampleConverter.h"
#include "capture/CaptureMetrics.h"
#include "capture/CapturePreviewHub.h"
#include "capture/StreamVideoEncoder.h"
#include "model/CaptureSource.h"
#include "model/RemoteControl.h"
#include "platform/Displays.h"
#include "platform/ScreenStream.h"
#include "runtime/FailureLog.h"
#include "runtime/Task.h"

namespace kestrune {

/// What the capture service tells its owner, all on the callback queue and in the order in which it happened.
/// Any of them may be empty.
struct ScreenCaptureCallbacks {
  std::function<void(std::optional<CaptureSourceDescriptor> source)> onSourceChanged;
  std::function<void(std::optional<RemoteControlTarget> target)> onControlTargetChanged;
  std::function<void(EncodedVideoPacket packet)> onVideoPacket;
  std::function<void(AudioPCMChunk chunk)> onAudioChunk;
  std::function<void(StreamMetrics metrics)> onMetricsChanged;
  /// A failure that the stream survives.
  std::function<void(std::exception_ptr failure)> onError;
  /// The stream ended by itself; an operationFailed.
  std::function<void(std::exception_ptr failure)> onCaptureStopped;
};

/// Holds the one capture stream of the program: the selected source, the running stream of picture and sound,
/// the encoder that its frames go to, and the counters. Source and stream survive changes of the video
/// settings, of the selected content, and of the mode of the display that is shown.
///
/// A plain object of its owner; make it with std::make_shared. The owner calls the operations from one queue
/// at a time, and owns the callback queue at least as long. Those that wait for the system are tasks, which
/// keep the service alive from their first turn on and throw KestruneError; everything else returns at once.
/// setVideoEncodingEnabled(), requestKeyframe() and the questions may come from any thread.
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
    /// Every callback runs on it; the main queue in this program.
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

  void setCallbacks(ScreenCaptureCallbacks callbacks);

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
  Task<void> updateVideoSettings(VideoSettings settings);
  /// Ends the stream. Throws operationFailed if the system failed to; the stream is let go all the same.
  Task<void> stop();
  bool isRunning() const;
  /// The encoder has failed, and given no packet since. Any thread.
  bool isEncodingFailing() const { return isEncodingFailing_; }

  /// Whether frames go to the encoder. Turning it on, also once more, gives a keyframe at the next frame, and
  /// asks for that frame.
  void setVideoEncodingEnabled(bool enabled);
  /// The next encoded frame is a keyframe; it is asked for, so that a still screen does not delay it.
  void requestKeyframe();

  /// The counters of the running stream, or of the last one.
  StreamMetrics metrics() const { return metrics_.current(); }

  // What the system's picker reports, on the owner's queue.
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
  /// What the service shares with the outputs of one stream. It outlives the stream, so that a late call of
  /// the stream's thread never holds the last reference to the stream itself.
  struct Link {
    std::atomic<bool> isOpen{true};
    // Guarded by stateLock_, for a stream whose start is not through:
    bool hasEnded = false;
    std::exception_ptr failure;
    bool hasContentChanged = false;
  };
  struct Stream {
    std::shared_ptr<ScreenStream> platform;  // null: no stream
    std::shared_ptr<Link> link;
  };
  /// One change of the source on its way.
  struct SelectionUpdate {
    Stream stream;
    SharedSelection before;
    SharedSelection next;
    std::uint64_t generation = 0;
    TaskHandle previous;
  };
  /// How many values of one kind wait on the callback queue.
  using Backlog = std::shared_ptr<std::atomic<int>>;

  static Task<void> runSelectionUpdate(std::shared_ptr<ScreenCaptureService> self, SelectionUpdate update);
  void select(SharedSelection selection);
  /// The selection with its display's present place and size; null if it says just that.
  SharedSelection following(const SharedSelection& selection) const;
  void handleContentChanged(const std::shared_ptr<Link>& link);  // any thread
  void followContent(const std::shared_ptr<Link>& link);
  void announce(const SharedSelection& selection);
  SharedSelection selectionForStart(SharedSelection selection);
  Stream makeStream(const Selection& selection, const StreamSettings& settings);
  std::shared_ptr<StreamVideoEncoder> makeEncoder(const VideoSettings& settings);
  void configurePicker(ScreenStream& stream);
  void setPickerActive(bool active);
  void clearPreview();
  /// Stops heeding a stream and ends it on the callback queue, since the caller may be the stream's thread.
  void release(Stream stream);

  void handleVideo(VideoSample sample);                 // on videoQueue_
  void handleAudio(const AudioSample& sample);          // on audioQueue_
  void handlePacket(const EncodedVideoPacket& packet);  // on the encoder's output thread
  void handleStreamStopped(const std::shared_ptr<Link>& link, std::exception_ptr failure);  // any thread

  void reportError(const std::exception_ptr& failure);
  void reportMetrics(std::optional<StreamMetrics> snapshot);
  template <class Value>
  void deliver(std::function<void(Value)> ScreenCaptureCallbacks::*callback, Value value,
               const Backlog& backlog = nullptr);

  const Dependencies dependencies_;
  const std::shared_ptr<SerialQueue> videoQueue_;
  const std::shared_ptr<SerialQueue> audioQueue_;
  const Backlog waitingPackets_ = std::make_shared<std::atomic<int>>(0);
  const Backlog waitingChunks_ = std::make_shared<std::atomic<int>>(0);
  std::atomic<bool> awaitsKeyframe_{false};  // packets were dropped: only a keyframe can follow

  // Never held together with the lock of the metrics, nor across a call of the system or a callback.
  mutable std::mutex stateLock_;
  // Guarded by stateLock_:
  std::shared_ptr<const ScreenCaptureCallbacks> callbacks_;
  SharedSelection selection_;
  Stream stream_;
  std::shared_ptr<StreamVideoEncoder> encoder_;  // set and cleared together with stream_
  StreamSettings settings_;                      // of the running stream
  bool isStarting_ = false;
  bool videoEncodingEnabled_ = false;
  bool audioErrorReported_ = false;
  /// Counts changes of the selection: a late result of an earlier one changes nothing.
  std::uint64_t selectionGeneration_ = 0;
  TaskHandle pendingSelectionUpdate_;
  SharedSelection nextSelection_;  // of the newest change that is not through

  std::atomic<bool> isEncodingFailing_{false};
  // Each has a lock of its own:
  CaptureMetrics metrics_;
  FailureLog failureLog_;
};

template <class Value>
void ScreenCaptureService::deliver(std::function<void(Value)> ScreenCaptureCallbacks::*callback, Value value,
                                   const Backlog& backlog) {
  std::shared_ptr<const ScreenCaptureCallbacks> callbacks;
  {
    const std::lock_guard guard(stateLock_);
    callbacks = callbacks_;
  }
  if (!((*callbacks).*callback)) return;
  if (backlog) ++*backlog;
  dependencies_.callbackQueue->post(
      [callbacks = std::move(callbacks), callback, value = std::move(value), backlog]() mutable {
        if (backlog) --*backlog;
        ((*callbacks).*callback)(std::move(value));
      });
}

}  // namespace kestrune
