#pragma once

#include "model/MediaPackets.h"
#include "model/StreamSettings.h"
#include "platform/AudioSample.h"

namespace kestrune {

/// Turns captured sound into the samples that are sent. Orders its callers itself.
class AudioSampleConverter {
 public:
  virtual ~AudioSampleConverter() = default;
  /// A chunk of no frames is a success: the sound is still inside the converter. Throws an Error.
  virtual AudioPCMChunk convert(const AudioSample& sample, AudioChannelMode mode) = 0;
  /// The next sample begins anew.
  virtual void clearCaches() = 0;
};

}  // namespace kestrune
