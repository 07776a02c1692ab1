#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "platform/Bytes.h"
#include "platform/CompressionSession.h"

namespace kestrune::linux_platform {

/// The parameter sets of one software session. NAL units of its samples stand behind four bytes of length.
class ParameterSetDescription final : public VideoFormatDescription {
 public:
  static constexpr int kNALHeaderLength = 4;

  ParameterSetDescription(VideoCodecType codec, std::vector<Bytes> sets)
      : codec_(codec), sets_(std::move(sets)) {}

  Summary h264Summary() const override { return summary(VideoCodecType::avc1); }
  ParameterSet h264ParameterSet(std::size_t index) const override {
    return parameterSet(VideoCodecType::avc1, index);
  }
  Summary hevcSummary() const override { return summary(VideoCodecType::hvc1); }
  ParameterSet hevcParameterSet(std::size_t index) const override {
    return parameterSet(VideoCodecType::hvc1, index);
  }

 private:
  Summary summary(VideoCodecType codec) const;
  ParameterSet parameterSet(VideoCodecType codec, std::size_t index) const;

  VideoCodecType codec_;
  std::vector<Bytes> sets_;
};

/// A sample in one piece of memory.
std::shared_ptr<const EncodedSample> makeEncodedSample(Bytes units, bool isKeyframe,
                                                       std::shared_ptr<const VideoFormatDescription> format,
                                                       std::optional<std::int64_t> presentationMicroseconds);

}  // namespace kestrune::linux_platform
