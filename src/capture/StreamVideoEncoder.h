#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/CaptureDimensions.h"
#include "model/MediaPackets.h"
#include "model/StreamSettings.h"
#include "platform/CompressionSession.h"
#include "platform/PixelTransfer.h"
#include "runtime/FailureLog.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Turns captured pictures into H.264 or H.265 packets in Annex B form. One instance stands for one set of
/// settings; the compression session inside is made at the first frame, at the size that follows from it, and
/// made again when that size changes.
///
/// At most two frames wait for the encoder; the frame that finds two waiting is dropped at the door. A
/// failure is reported, and the next frame is tried as if nothing had been.
///
/// A new encoder is disabled; its first frame is a keyframe. Make it with std::make_shared. Methods may be
/// called from any thread and never wait for the encoder. Callbacks run without a lock: onPacket on the
/// session's output thread, onDroppedFrame on the thread of submit(), onPendingDepthChanged on the thread of
/// submit() or on the queue, onError on the queue or the output thread. After setEnabled(false) or
/// invalidate() has returned, no frame submitted before gives a packet, but for one that is being delivered
/// at that moment.
class StreamVideoEncoder final : public std::enable_shared_from_this<StreamVideoEncoder> {
 public:
  static constexpr const char* kQueueLabel = "com.fennwick.Kestrune.encoder";
  /// Frames accepted and not yet handed to the session.
  static constexpr int kMaximumPendingFrames = 2;

  struct Settings {
    StreamProfile profile = StreamProfile::balanced;
    StreamFrameRate frameRate = StreamFrameRate::fps60;
    StreamVideoCodec codec = StreamVideoCodec::h264;
    StreamBitRate bitRate = StreamBitRate::medium;
    StreamVideoEncoderKind encoderKind = StreamVideoEncoderKind::automatic;
    friend bool operator==(const Settings&, const Settings&) = default;
  };

  /// Any of them may be empty.
  struct Callbacks {
    std::function<void(EncodedVideoPacket packet)> onPacket;
    std::function<void()> onDroppedFrame;
    std::function<void(std::exception_ptr failure)> onError;
    std::function<void(std::int64_t pendingFrames)> onPendingDepthChanged;
  };

  /// `queue` is the encoder's own (label kQueueLabel): sessions are made, frames scaled and submitted on it.
  StreamVideoEncoder(Settings settings, Callbacks callbacks, std::shared_ptr<SerialQueue> queue,
                     std::shared_ptr<CompressionSessionFactory> sessions,
                     std::shared_ptr<PixelTransferFactory> transfers, std::shared_ptr<const Clock> clock);
  StreamVideoEncoder(const StreamVideoEncoder&) = delete;
  StreamVideoEncoder& operator=(const StreamVideoEncoder&) = delete;

  /// A change to true asks for a keyframe and warms the scaling pipeline up; a change to false drops the
  /// request and ends the session. The present value again does nothing.
  void setEnabled(bool enabled);
  /// Warms the scaling pipeline up, so that the first frame that needs it does not wait for it.
  void prewarm();
  void submit(VideoSample sample);
  /// The next frame that reaches the session is a keyframe.
  void requestKeyframe();
  /// Ends the work of this instance for good.
  void invalidate();

 private:
  // All on queue_.
  void encodeStep(const VideoSample& sample, std::uint64_t generation);
  void encodeFrame(const VideoSample& sample, std::uint64_t generation);
  void makeSession(CaptureDimensions size);
  void tearDownSession();
  void ensureTransferSession();
  SharedPixelBuffer scaled(const SharedPixelBuffer& image, CaptureDimensions size);
  void warmUpTransfer();

  /// On the session's output thread.
  void handleOutput(MediaStatus status, const std::shared_ptr<const EncodedSample>& sample,
                    std::uint64_t generation);

  bool isCurrent(std::uint64_t generation) const;
  void reportPendingDepth() const;
  void reportError(const std::string& logLine, const std::exception_ptr& failure);

  const Settings settings_;
  const Callbacks callbacks_;
  const std::shared_ptr<SerialQueue> queue_;
  const std::shared_ptr<CompressionSessionFactory> sessions_;
  const std::shared_ptr<PixelTransferFactory> transfers_;
  FailureLog failureLog_;  // has a lock of its own

  mutable std::mutex stateLock_;  // guards the fields marked below; never held across a call outside

  // Touched on queue_ only.
  std::unique_ptr<CompressionSession> session_;
  std::unique_ptr<PixelTransferSession> transferSession_;
  std::unique_ptr<PixelBufferPool> pixelBufferPool_;
  CaptureDimensions encodedSize_;  // of session_; (0, 0) while there is none

  int pendingFrames_ = 0;          // stateLock_
  std::uint64_t generation_ = 0;   // stateLock_; changes at every enable, disable and invalidation
  bool enabled_ = false;           // stateLock_
  bool forceNextKeyframe_ = true;  // stateLock_
};

/// The properties of a session for these settings, in the order in which they are set.
std::vector<CompressionProperty> compressionProperties(const StreamVideoEncoder::Settings& settings);

}  // namespace kestrune
