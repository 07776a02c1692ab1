#pragma once

#include "platform/PixelBuffer.h"

namespace kestrune {

/// Where the person at the machine sees what is captured. Called from the capture video queue and from the
/// queue of the capture service's owner, never under a lock; it must not block.
class CapturePreviewSink {
 public:
  virtual ~CapturePreviewSink() = default;
  /// Every captured frame, also while nothing is encoded.
  virtual void enqueue(const VideoSample& sample) = 0;
  /// The capture has ended; the last picture is to go.
  virtual void clear() = 0;
};

}  // namespace kestrune
