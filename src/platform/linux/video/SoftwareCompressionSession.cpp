#include "platform/linux/video/SoftwareCompressionSession.h"

#include <utility>

#include "platform/linux/video/EncodedBytes.h"
#include "platform/linux/video/VideoStatus.h"

namespace kestrune::linux_platform {

MediaStatus SoftwareCompressionSession::setProperty(const CompressionProperty& property) {
  if (stage_ == Stage::ended) return kInvalidSession;
  if (stage_ == Stage::encoding) return kPropertyNotSupported;
  return settings_.apply(property);
}

MediaStatus SoftwareCompressionSession::prepareToEncode() {
  if (stage_ == Stage::ended) return kInvalidSession;
  if (stage_ == Stage::encoding) return 0;
  std::vector<Bytes> parameterSets;
  if (const MediaStatus status = open(parameterSets); status != 0) return status;
  format_ = std::make_shared<ParameterSetDescription>(settings_.codec, std::move(parameterSets));
  keyframes_.emplace(settings_.maxKeyFrameInterval, settings_.maxKeyFrameIntervalDuration * 1'000'000);
  budget_.emplace(settings_.sustainedBitRate(), settings_.burstBits(), kInitialFill);
  stage_ = Stage::encoding;
  return 0;
}

MediaStatus SoftwareCompressionSession::encode(const SharedPixelBuffer& image,
                                               std::optional<std::int64_t> presentationMicroseconds,
                                               std::int64_t /*durationMicroseconds*/, bool forceKeyframe,
                                               OutputHandler handler) {
  if (const MediaStatus status = prepareToEncode(); status != 0) return status;
  if (!image || image->format() != PixelFormat::biPlanar420VideoRange || image->width() != settings_.width ||
      image->height() != settings_.height) {
    return kParameterError;
  }

  const auto& changes = image->changes;
  const bool followsLast = changes && lastSequence_ && changes->sequence == *lastSequence_ + 1;
  const bool isUnchanged = followsLast && changes->rectangles.empty();
  Picture picture{*image};
  if (followsLast) picture.changedSinceLast = &changes->rectangles;
  picture.isKeyframe = forceKeyframe || keyframes_->isDue(presentationMicroseconds, isUnchanged);
  const auto frameRate = static_cast<double>(settings_.expectedFrameRate);
  const double credit =
      budget_->creditForFrame(presentationMicroseconds, 1'000'000 / settings_.expectedFrameRate);
  picture.creditKilobitsPerSecond = kilobits(credit * frameRate);

  const Encoded encoded = encodePicture(picture);
  if (encoded.status != 0) {
    lastSequence_.reset();
    return encoded.status;
  }
  lastSequence_ = changes ? std::optional(changes->sequence) : std::nullopt;
  budget_->noteEncoded(static_cast<std::int64_t>(encoded.units.size()) * 8,
                       picture.creditKilobitsPerSecond * 1000 / frameRate);
  keyframes_->noteEncoded(encoded.isKeyframe, presentationMicroseconds, isUnchanged);
  if (handler) deliver(encoded, presentationMicroseconds, handler);
  return 0;
}

void SoftwareCompressionSession::deliver(const Encoded& encoded,
                                         std::optional<std::int64_t> presentationMicroseconds,
                                         const OutputHandler& handler) const {
  if (encoded.units.empty()) {
    handler(0, nullptr);
    return;
  }
  const auto data = std::make_shared<BorrowedBlockBuffer>(encoded.units);
  auto sample = std::make_shared<EncodedSample>();
  sample->isKeyframe = encoded.isKeyframe;
  sample->data = data;
  sample->format = format_;
  sample->presentationMicroseconds = presentationMicroseconds;
  handler(0, std::move(sample));
  data->revoke();
}

MediaStatus SoftwareCompressionSession::completeFrames() {
  return stage_ == Stage::ended ? kInvalidSession : 0;
}

void SoftwareCompressionSession::invalidate() {
  if (stage_ == Stage::encoding) close();
  stage_ = Stage::ended;
}

}  // namespace kestrune::linux_platform
