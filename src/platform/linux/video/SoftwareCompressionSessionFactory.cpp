#include "platform/linux/video/SoftwareCompressionSessionFactory.h"

#include <algorithm>
#include <memory>

#include "platform/linux/video/VideoStatus.h"
#include "platform/linux/video/X264CompressionSession.h"
#include "platform/linux/video/X265CompressionSession.h"

namespace kestrune::linux_platform {
namespace {

constexpr std::int32_t kMaximumSide = 8192;

/// 4:2:0 has one chroma sample for two by two pixels.
bool isEncodableSide(std::int32_t side, std::int32_t minimum) {
  return side >= minimum && side <= kMaximumSide && side % 2 == 0;
}

}  // namespace

CompressionSessionFactory::Result SoftwareCompressionSessionFactory::create(
    std::int32_t width, std::int32_t height, VideoCodecType codec,
    const std::optional<EncoderSpecification>& specification) {
  if (specification &&
      (specification->requireHardware.value_or(false) || specification->enableHardware.value_or(false))) {
    return {kCouldNotFindVideoEncoder, nullptr};
  }
  const std::int32_t minimumSide = codec == VideoCodecType::hvc1 ? X265CompressionSession::kMinimumSide : 2;
  if (!isEncodableSide(width, minimumSide) || !isEncodableSide(height, minimumSide)) {
    return {kParameterError, nullptr};
  }
  CompressionSettings settings;
  settings.codec = codec;
  settings.width = width;
  settings.height = height;
  if (codec == VideoCodecType::hvc1) return {0, std::make_unique<X265CompressionSession>(settings)};
  return {0, std::make_unique<X264CompressionSession>(settings)};
}

}  // namespace kestrune::linux_platform
