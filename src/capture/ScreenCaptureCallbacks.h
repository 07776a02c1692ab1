#pragma once

#include <exception>
#include <functional>
#include <optional>

#include "model/CaptureSource.h"
#include "model/MediaPackets.h"
#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"

namespace kestrune {

/// What the capture service tells its owner. Any of them may be empty.
///
/// Media is handed over where it is made, in its order; these two must not block. Everything else runs on the
/// callback queue, in the order in which it happened.
struct ScreenCaptureCallbacks {
  std::function<void(std::optional<CaptureSourceDescriptor> source)> onSourceChanged;
  std::function<void(std::optional<RemoteControlTarget> target)> onControlTargetChanged;
  /// On the encoder's output thread.
  std::function<void(EncodedVideoPacket packet)> onVideoPacket;
  /// On the capture's audio queue.
  std::function<void(AudioPCMChunk chunk)> onAudioChunk;
  std::function<void(StreamMetrics metrics)> onMetricsChanged;
  /// A failure that the stream survives.
  std::function<void(std::exception_ptr failure)> onError;
  /// The stream ended by itself; an operationFailed.
  std::function<void(std::exception_ptr failure)> onCaptureStopped;
};

}  // namespace kestrune
