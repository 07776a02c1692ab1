#pragma once

#include "platform/CompressionSession.h"

namespace kestrune::linux_platform {

/// Makes the sessions of this system: x264 for avc1, x265 for hvc1. There is no hardware encoder, so a
/// specification that requires or prefers one is refused with kCouldNotFindVideoEncoder, which makes a caller
/// that can do with software ask again without it.
class SoftwareCompressionSessionFactory final : public CompressionSessionFactory {
 public:
  Result create(std::int32_t width, std::int32_t height, VideoCodecType codec,
                const std::optional<EncoderSpecification>& specification) override;
};

}  // namespace kestrune::linux_platform
