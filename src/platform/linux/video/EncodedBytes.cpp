#include "platform/linux/video/EncodedBytes.h"

#include <algorithm>

#include "platform/linux/video/VideoStatus.h"

namespace kestrune::linux_platform {
VideoFormatDescription::Summary ParameterSetDescription::summary(VideoCodecType codec) const {
  if (codec != codec_) return {kParameterError, 0, kNALHeaderLength};
  return {0, sets_.size(), kNALHeaderLength};
}

VideoFormatDescription::ParameterSet ParameterSetDescription::parameterSet(VideoCodecType codec,
                                                                           std::size_t index) const {
  if (codec != codec_ || index >= sets_.size()) return {kParameterError, nullptr, 0};
  return {0, sets_[index].data(), sets_[index].size()};
}

MediaStatus BorrowedBlockBuffer::copy(std::size_t offset, std::span<std::uint8_t> destination) const {
  if (offset > bytes_.size() || destination.size() > bytes_.size() - offset) return kParameterError;
  std::ranges::copy(bytes_.subspan(offset, destination.size()), destination.begin());
  return 0;
}

}  // namespace kestrune::linux_platform
