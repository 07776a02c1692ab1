#include "platform/linux/video/EncodedBytes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "platform/linux/video/VideoStatus.h"

namespace kestrune::linux_platform {
namespace {

class OwnedBlockBuffer final : public BlockBuffer {
 public:
  explicit OwnedBlockBuffer(Bytes bytes) : bytes_(std::move(bytes)) {}

  std::size_t length() const override { return bytes_.size(); }
  MediaStatus copy(std::size_t offset, std::span<std::uint8_t> destination) const override {
    if (offset > bytes_.size() || destination.size() > bytes_.size() - offset) return kParameterError;
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), destination.size(),
                destination.begin());
    return 0;
  }

 private:
  Bytes bytes_;
};

/// The nearest number of seconds that is not below the time, so that the microseconds come back unharmed when
/// the fraction is dropped.
double secondsNotBelow(std::int64_t microseconds) {
  const double seconds = static_cast<double>(microseconds) / 1'000'000;
  return seconds * 1'000'000 < static_cast<double>(microseconds)
             ? std::nextafter(seconds, std::numeric_limits<double>::infinity())
             : seconds;
}

}  // namespace

VideoFormatDescription::Summary ParameterSetDescription::summary(VideoCodecType codec) const {
  if (codec != codec_) return {kParameterError, 0, kNALHeaderLength};
  return {0, sets_.size(), kNALHeaderLength};
}

VideoFormatDescription::ParameterSet ParameterSetDescription::parameterSet(VideoCodecType codec,
                                                                           std::size_t index) const {
  if (codec != codec_ || index >= sets_.size()) return {kParameterError, nullptr, 0};
  return {0, sets_[index].data(), sets_[index].size()};
}

std::shared_ptr<const EncodedSample> makeEncodedSample(Bytes units, bool isKeyframe,
                                                       std::shared_ptr<const VideoFormatDescription> format,
                                                       std::optional<std::int64_t> presentationMicroseconds) {
  auto sample = std::make_shared<EncodedSample>();
  SampleAttachments attachments;
  attachments.notSync = !isKeyframe;
  sample->attachments = {attachments};
  sample->data = std::make_shared<OwnedBlockBuffer>(std::move(units));
  sample->format = std::move(format);
  if (presentationMicroseconds) sample->presentationSeconds = secondsNotBelow(*presentationMicroseconds);
  return sample;
}

}  // namespace kestrune::linux_platform
