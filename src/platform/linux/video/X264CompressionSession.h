#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/video/SoftwareCompressionSession.h"

struct x264_t;
struct x264_param_t;

namespace kestrune::linux_platform {

/// H.264 by x264: Constrained Baseline, one reference, one thread, no frame of delay.
///
/// Rate: every picture is coded for a quality that the average bit rate chooses, and x264's buffer model
/// raises the quantizer where that would break the rate (RateBudget). A still picture that was coded coarsely
/// is thus refined by its repeats, and then costs nothing more; a pause saves no more than the bucket holds.
///
/// Unchanged macroblocks are named to x264, which leaves them out of its analysis as soon as they have the
/// quality that the picture is coded for. A small change goes out alone; the rest is sharpened with the
/// repeats.
class X264CompressionSession final : public SoftwareCompressionSession {
 public:
  explicit X264CompressionSession(CompressionSettings settings);
  ~X264CompressionSession() override;

 protected:
  MediaStatus open(std::vector<Bytes>& parameterSets) override;
  Encoded encodePicture(const Picture& picture) override;
  void close() override;

 private:
  void configure();
  MediaStatus collectParameterSets(std::vector<Bytes>& parameterSets);
  bool postponesSharpening();
  void markChanges(const std::vector<PixelRect>& changed);

  std::unique_ptr<x264_param_t> parameters_;
  x264_t* encoder_ = nullptr;
  std::int64_t frameNumber_ = 0;
  int macroblockColumns_;
  int macroblockRows_;
  // Read by x264 during one encodePicture() call.
  std::vector<std::uint8_t> macroblockInfo_;
  std::vector<float> sharpeningOffsets_;  // of the quantizer, by macroblock
  int postponements_ = 0;                 // of sharpening, in a row
};

}  // namespace kestrune::linux_platform
