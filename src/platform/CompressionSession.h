#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "platform/Bytes.h"
#include "platform/PixelBuffer.h"

namespace kestrune {

/// Status numbers of the media services; 0 is success. Messages show them.
using MediaStatus = std::int32_t;

enum class VideoCodecType { avc1, hvc1 };

/// What kind of encoder is asked for. Absent entries are left to the system.
struct EncoderSpecification {
  std::optional<bool> enableHardware;
  std::optional<bool> requireHardware;
  std::optional<bool> lowLatencyRateControl;
  friend bool operator==(const EncoderSpecification&, const EncoderSpecification&) = default;
};

enum class CompressionPropertyKey {
  realTime,                     // bool
  allowFrameReordering,         // bool
  maxFrameDelayCount,           // integer, frames
  profileLevel,                 // ProfileLevel
  averageBitRate,               // integer, bits per second
  expectedFrameRate,            // integer, frames per second
  maxKeyFrameInterval,          // integer, frames
  maxKeyFrameIntervalDuration,  // integer, seconds
  dataRateLimits,               // DataRateLimit
  colorPrimaries,               // ColorStandard
  transferFunction,             // ColorStandard
  yCbCrMatrix,                  // ColorStandard
};

enum class ProfileLevel { h264BaselineAuto, hevcMainAuto };
enum class ColorStandard { itu709 };
struct DataRateLimit {
  std::int64_t bytes = 0;
  std::int64_t seconds = 0;
  friend bool operator==(const DataRateLimit&, const DataRateLimit&) = default;
};

struct CompressionProperty {
  CompressionPropertyKey key;
  std::variant<bool, std::int64_t, ProfileLevel, DataRateLimit, ColorStandard> value;
  friend bool operator==(const CompressionProperty&, const CompressionProperty&) = default;
};

/// The parameter sets that stand beside an encoded sample.
class VideoFormatDescription {
 public:
  struct Summary {
    MediaStatus status = 0;
    std::size_t parameterSetCount = 0;
    int nalHeaderLength = 4;  // bytes of the length prefix in the sample
  };
  struct ParameterSet {
    MediaStatus status = 0;
    const std::uint8_t* data = nullptr;  // valid while the description lives
    std::size_t size = 0;
  };
  virtual ~VideoFormatDescription() = default;
  virtual Summary h264Summary() const = 0;
  virtual ParameterSet h264ParameterSet(std::size_t index) const = 0;
  virtual Summary hevcSummary() const = 0;
  virtual ParameterSet hevcParameterSet(std::size_t index) const = 0;
};

/// The compressed bytes of a sample, wherever they are. May be the encoder's own memory: readable until the
/// handler that got the sample returns, and failing from then on.
class BlockBuffer {
 public:
  virtual ~BlockBuffer() = default;
  virtual std::size_t length() const = 0;
  /// Copies destination.size() bytes from `offset` on; 0 on success.
  virtual MediaStatus copy(std::size_t offset, std::span<std::uint8_t> destination) const = 0;
};

/// One encoded picture: NAL units, each behind a big-endian length, and what describes them.
struct EncodedSample {
  bool isDataReady = true;
  std::optional<bool> isKeyframe;  // absent: the encoder did not tell
  std::shared_ptr<const BlockBuffer> data;
  std::shared_ptr<const VideoFormatDescription> format;
  std::optional<std::int64_t> presentationMicroseconds;  // as given to encode()
};

/// One encoder at one size. Calls come from one queue; output comes on a thread of the session's choice,
/// possibly within encode() or completeFrames(), one sample at a time, in presentation order.
class CompressionSession {
 public:
  using OutputHandler = std::function<void(MediaStatus status, std::shared_ptr<const EncodedSample> sample)>;

  virtual ~CompressionSession() = default;
  virtual MediaStatus setProperty(const CompressionProperty& property) = 0;
  /// After the properties and before the first frame; 0 on success.
  virtual MediaStatus prepareToEncode() = 0;
  /// Takes one "420v" picture of the session's size. A non-zero result: nothing was taken and the handler is
  /// not called for it. Otherwise the handler is called once, unless the session is invalidated before. The
  /// picture's `changes` may be used to spend nothing on what did not change.
  virtual MediaStatus encode(const SharedPixelBuffer& image,
                             std::optional<std::int64_t> presentationMicroseconds,
                             std::int64_t durationMicroseconds, bool forceKeyframe,
                             OutputHandler handler) = 0;
  /// Emits everything that is still inside.
  virtual MediaStatus completeFrames() = 0;
  /// Ends the session; nothing is emitted afterwards. Only destruction may follow.
  virtual void invalidate() = 0;
};

class CompressionSessionFactory {
 public:
  struct Result {
    MediaStatus status = 0;
    std::unique_ptr<CompressionSession> session;
  };
  virtual ~CompressionSessionFactory() = default;
  /// `specification` absent: the system chooses freely. May be called from any queue.
  virtual Result create(std::int32_t width, std::int32_t height, VideoCodecType codec,
                        const std::optional<EncoderSpecification>& specification) = 0;
};

}  // namespace kestrune
