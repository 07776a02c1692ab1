#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/AudioSample.h"
#include "platform/Geometry.h"
#include "platform/PixelBuffer.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

struct ShareableDisplay {
  DisplayID id = 0;
  Rect frame;  // global points
};

struct ShareableContent {
  std::vector<ShareableDisplay> displays;
};

/// What a stream shows. Compared by value.
struct ContentFilter {
  enum class Style { none = 0, window = 1, display = 2, application = 3 };
  Style style = Style::none;
  Rect contentRect;              // global points
  double pointPixelScale = 1.0;  // pixels per point
  std::vector<ShareableDisplay> includedDisplays;
  /// Titles as far as the system tells them; a window without a title names its owning application.
  struct Window {
    std::optional<std::string> title;
    std::optional<std::string> owningApplicationName;
    friend bool operator==(const Window&, const Window&) = default;
  };
  std::vector<Window> includedWindows;
  std::vector<std::string> includedApplicationNames;
};

/// How a stream delivers. The fields stand in the order in which the system's setters are called.
struct ScreenStreamConfiguration {
  int width = 0;                     // pixels
  int height = 0;                    // pixels
  int minimumFrameIntervalFPS = 60;  // between changed pictures the interval is 1 / this many seconds
  int queueDepth = 3;                // frames that may be in use by the receiver at once
  PixelFormat pixelFormat = PixelFormat::biPlanar420VideoRange;
  bool sRGBColorSpace = true;
  bool colorMatrixITU709 = true;
  bool scalesToFit = true;
  bool preservesAspectRatio = true;
  bool showsCursor = true;
  bool capturesAudio = true;
  int sampleRate = 48000;
  int channelCount = 2;
  bool excludesCurrentProcessAudio = true;
  std::string streamName;
  bool captureMicrophone = false;
  bool standardDynamicRange = true;
  friend bool operator==(const ScreenStreamConfiguration&, const ScreenStreamConfiguration&) = default;
};

/// Called with null on success.
using StreamCompletion = std::function<void(std::exception_ptr failure)>;

/// A running or runnable capture of video and system audio together. The owner calls from any one thread at a
/// time; completions come on a thread of the stream's choice, exactly once each.
///
/// Video: a frame when something changed, never sooner than the minimum frame interval after the one before;
/// a still screen repeats its last picture a few times after the last change, then about once a second, so
/// that a still screen can be told from a dead one. With all `queueDepth` buffers in use, a frame is put off,
/// not lost: the newest state is delivered when a buffer comes back.
class ScreenStream {
 public:
  using VideoOutput = std::function<void(VideoSample sample)>;
  using AudioOutput = std::function<void(AudioSample sample)>;
  /// The stream ended by itself, for instance because its display went away. Never called after a stop().
  using StopHandler = std::function<void(std::exception_ptr failure)>;
  /// What the stream shows has another place or size than its filter says, for instance since the display's
  /// mode was changed. The stream goes on, fitted into the configured size.
  using ContentChangeHandler = std::function<void()>;

  virtual ~ScreenStream() = default;

  /// Before start. Samples are handed over on `queue`. Throws an Error if the system refuses the output.
  virtual void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) = 0;
  virtual void addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) = 0;

  /// Before start. The handler is called on a thread of the stream's choice and must not block.
  virtual void setContentChangeHandler(ContentChangeHandler handler) = 0;

  virtual void startCapture(StreamCompletion completion) = 0;
  virtual void stopCapture(StreamCompletion completion) = 0;
  /// Takes effect without stopping: later frames have the new size and rate.
  virtual void updateConfiguration(const ScreenStreamConfiguration& configuration,
                                   StreamCompletion completion) = 0;
  virtual void updateContentFilter(const ContentFilter& filter, StreamCompletion completion) = 0;
  /// Delivers the present picture soon even if nothing changes, so that a new viewer or a keyframe request on
  /// a still screen does not wait for the next repeat. Any thread; cheap; several requests may be served by
  /// one frame.
  virtual void requestFrame() = 0;
};

/// Makes streams and tells what can be captured.
class ScreenCapture {
 public:
  using ContentCompletion =
      std::function<void(std::optional<ShareableContent> content, std::exception_ptr failure)>;

  virtual ~ScreenCapture() = default;
  /// Completes on a thread of the system's choice.
  virtual void shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                                ContentCompletion completion) = 0;
  /// A filter of the whole display, nothing excluded.
  virtual ContentFilter filterForDisplay(const ShareableDisplay& display) const = 0;
  virtual std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                                     const ScreenStreamConfiguration& configuration,
                                                     ScreenStream::StopHandler onStopped) = 0;
};

/// The system's own picker of windows and displays, where there is one.
class ContentSharingPicker {
 public:
  struct Configuration {
    std::uint32_t allowedPickerModes = 0;
    bool allowsChangingSelectedContent = false;
    std::vector<std::string> excludedBundleIDs;
  };
  virtual ~ContentSharingPicker() = default;
  virtual void setActive(bool active) = 0;
  virtual void setConfiguration(const Configuration& configuration, ScreenStream& stream) = 0;
};

}  // namespace kestrune
