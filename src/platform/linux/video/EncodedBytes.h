#pragma once

#include <cstdint>
#include <span>
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

/// Bytes in the encoder's memory, until revoke(): a sample that is kept for longer reads as empty. Confined
/// to the thread of the output handler.
class BorrowedBlockBuffer final : public BlockBuffer {
 public:
  explicit BorrowedBlockBuffer(ByteView bytes) : bytes_(bytes) {}

  std::size_t length() const override { return bytes_.size(); }
  MediaStatus copy(std::size_t offset, std::span<std::uint8_t> destination) const override;
  void revoke() { bytes_ = {}; }

 private:
  ByteView bytes_;
};

}  // namespace kestrune::linux_platform
