#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Bytes.h"
#include "platform/CompressionSession.h"
#include "platform/linux/video/CompressionSettings.h"
#include "platform/linux/video/KeyframeSchedule.h"
#include "platform/linux/video/RateBudget.h"

namespace kestrune::linux_platform {

/// What both software encoders share: properties, the life of a session, when a keyframe is due, the rate
/// budget, and what is known to be unchanged.
///
/// Every frame is encoded and delivered within encode(), on its thread, so that nothing is ever inside and
/// completeFrames() has nothing to do. Properties are taken until the first frame.
///
/// Keyframes: see KeyframeSchedule. A picture is known to be unchanged when its `changes` follow the last
/// encoded picture and are empty.
class SoftwareCompressionSession : public CompressionSession {
 public:
  MediaStatus setProperty(const CompressionProperty& property) final;
  MediaStatus prepareToEncode() final;
  MediaStatus encode(const SharedPixelBuffer& image, std::optional<std::int64_t> presentationMicroseconds,
                     std::int64_t durationMicroseconds, bool forceKeyframe, OutputHandler handler) final;
  MediaStatus completeFrames() final;
  void invalidate() final;

 protected:
  struct Picture {
    const PixelBuffer& image;
    /// Present when the last picture that was encoded is the one before this: the parts that differ from it.
    const std::vector<PixelRect>* changedSinceLast = nullptr;
    bool isKeyframe = false;
    /// The rate, in kilobits per second, at which the encoder's buffer model is to gain with this frame what
    /// RateBudget credits it with; at least 1. The models count each frame as one interval of the frame rate.
    int creditKilobitsPerSecond = 1;
  };
  struct Encoded {
    MediaStatus status = 0;  // other than 0: the encoder took nothing
    /// Length-prefixed, in the encoder's memory until its next call; empty if it gave nothing for the
    /// picture.
    ByteView units;
    bool isKeyframe = false;
  };

  /// The part of the bucket with which a new encoder's own buffer model starts.
  static constexpr double kInitialFill = 0.9;

  /// The unit of the encoders' rates; at least 1, which is the least that they take.
  static int kilobits(double bits) { return std::max(static_cast<int>(bits / 1000), 1); }

  explicit SoftwareCompressionSession(CompressionSettings settings) : settings_(settings) {}

  const CompressionSettings& settings() const { return settings_; }

  /// Opens the encoder with settings(); gives its parameter sets.
  virtual MediaStatus open(std::vector<Bytes>& parameterSets) = 0;
  virtual Encoded encodePicture(const Picture& picture) = 0;
  virtual void close() = 0;

 private:
  enum class Stage { collecting, encoding, ended };

  void deliver(const Encoded& encoded, std::optional<std::int64_t> presentationMicroseconds,
               const OutputHandler& handler) const;

  CompressionSettings settings_;
  Stage stage_ = Stage::collecting;
  std::shared_ptr<const VideoFormatDescription> format_;
  std::optional<KeyframeSchedule> keyframes_;  // while encoding, as the next
  std::optional<RateBudget> budget_;
  std::optional<std::uint64_t> lastSequence_;  // of the last encoded picture, if it had one
};

}  // namespace kestrune::linux_platform
