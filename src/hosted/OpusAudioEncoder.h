#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "model/MediaPackets.h"
#include "platform/OpusCompressor.h"
#include "runtime/Error.h"

namespace kestrune {

class OpusAudioEncoderError final : public Error {
 public:
  enum class Case {
    conversionFailed,  // with the compressor's own text
    invalidPCM,
    unavailable,
  };

  explicit OpusAudioEncoderError(Case value, const std::string& detail = {});

  Case value() const { return value_; }
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  Case value_;
  std::string text_;
};

/// Makes Opus packets of 20 ms out of chunks of any length. What does not fill a packet waits for the next
/// chunk, with its capture time. Any thread may call; encode() and reset() exclude each other.
class OpusAudioEncoder {
 public:
  explicit OpusAudioEncoder(std::shared_ptr<OpusCompressorFactory> compressors);

  /// The packets that `chunk` completes. 48 kHz, 1 or 2 channels; another number of channels than before, or
  /// a capture time more than 40 ms off what the chunks before lead to, drops what waits.
  ///
  /// Throws OpusAudioEncoderError. A bad chunk changes nothing. A packet that could not be made takes those
  /// that this call had finished with it, and its samples stay first in the line: the caller resets.
  std::vector<EncodedAudioPacket> encode(const AudioPCMChunk& chunk);
  /// Drops what waits, and the compressor.
  void reset();

 private:
  void configure(std::int64_t channels);
  void clear();
  Bytes compressFirst(std::size_t byteCount) const;

  const std::shared_ptr<OpusCompressorFactory> compressors_;
  std::mutex lock_;  // guards everything below, for the whole of a call
  std::unique_ptr<OpusCompressor> compressor_;
  std::int64_t channels_ = 0;  // of the compressor; 0 without one
  Bytes pendingPCM_;
  std::optional<std::uint64_t> pendingCaptureTimeMicroseconds_;  // of the first frame of pendingPCM_
};

}  // namespace kestrune
