#include "capture/StreamVideoEncoder.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "capture/AnnexB.h"
#include "model/KestruneError.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kLog("Encoder");

KestruneError failure(const std::string& text, const char* kind, std::int32_t status) {
  return KestruneError::operationFailed(text + " (" + kind + " " + std::to_string(status) + ").");
}

VideoCodecType codecType(StreamVideoCodec codec) {
  return codec == StreamVideoCodec::hevc ? VideoCodecType::hvc1 : VideoCodecType::avc1;
}

EncoderSpecification encoderSpecification(StreamVideoEncoderKind kind) {
  EncoderSpecification specification;
  specification.lowLatencyRateControl = true;
  switch (kind) {
    case StreamVideoEncoderKind::automatic:
      specification.enableHardware = true;
      break;
    case StreamVideoEncoderKind::hardware:
      specification.requireHardware = true;
      break;
    case StreamVideoEncoderKind::software:
      specification.enableHardware = false;
      break;
  }
  return specification;
}

}  // namespace

std::vector<CompressionProperty> compressionProperties(const StreamVideoEncoder::Settings& settings) {
  using Key = CompressionPropertyKey;
  const std::int64_t bitRate = targetBitsPerSecond(settings.bitRate);
  const std::int64_t frameRate = framesPerSecond(settings.frameRate);
  const ProfileLevel profile =
      settings.codec == StreamVideoCodec::hevc ? ProfileLevel::hevcMainAuto : ProfileLevel::h264BaselineAuto;
  return {
      {Key::realTime, true},
      {Key::allowFrameReordering, false},
      {Key::maxFrameDelayCount, std::int64_t{1}},
      {Key::profileLevel, profile},
      {Key::averageBitRate, bitRate},
      {Key::expectedFrameRate, frameRate},
      {Key::maxKeyFrameInterval, 2 * frameRate},
      {Key::maxKeyFrameIntervalDuration, std::int64_t{2}},
      {Key::dataRateLimits, DataRateLimit{(bitRate + bitRate / 2) / 8, 1}},
      {Key::colorPrimaries, ColorStandard::itu709},
      {Key::transferFunction, ColorStandard::itu709},
      {Key::yCbCrMatrix, ColorStandard::itu709},
  };
}

StreamVideoEncoder::StreamVideoEncoder(Settings settings, Callbacks callbacks,
                                       std::shared_ptr<SerialQueue> queue,
                                       std::shared_ptr<CompressionSessionFactory> sessions,
                                       std::shared_ptr<PixelTransferFactory> transfers,
                                       std::shared_ptr<const Clock> clock)
    : settings_(settings),
      callbacks_(std::move(callbacks)),
      queue_(std::move(queue)),
      sessions_(std::move(sessions)),
      transfers_(std::move(transfers)),
      failureLog_(kLog, std::move(clock)) {}

void StreamVideoEncoder::setEnabled(bool enabled) {
  {
    const std::lock_guard lock(stateLock_);
    if (enabled_ == enabled) return;
    enabled_ = enabled;
    ++generation_;
    forceNextKeyframe_ = enabled;
  }
  if (enabled) {
    prewarm();
  } else {
    queue_->post([self = shared_from_this()] { self->tearDownSession(); });
  }
}

void StreamVideoEncoder::prewarm() {
  queue_->post([self = shared_from_this()] { self->warmUpTransfer(); });
}

void StreamVideoEncoder::submit(VideoSample sample) {
  std::uint64_t generation = 0;
  bool isAccepted = false;
  {
    const std::lock_guard lock(stateLock_);
    if (enabled_ && pendingFrames_ < kMaximumPendingFrames) {
      ++pendingFrames_;
      generation = generation_;
      isAccepted = true;
    }
  }
  if (!isAccepted) {
    if (callbacks_.onDroppedFrame) callbacks_.onDroppedFrame();
    return;
  }
  reportPendingDepth();
  queue_->post([self = shared_from_this(), sample = std::move(sample), generation] {
    self->encodeStep(sample, generation);
  });
}

void StreamVideoEncoder::requestKeyframe() {
  const std::lock_guard lock(stateLock_);
  forceNextKeyframe_ = true;
}

void StreamVideoEncoder::invalidate() {
  {
    const std::lock_guard lock(stateLock_);
    enabled_ = false;
    ++generation_;
  }
  queue_->post([self = shared_from_this()] {
    self->tearDownSession();
    self->transferSession_.reset();
  });
}

void StreamVideoEncoder::encodeStep(const VideoSample& sample, std::uint64_t generation) {
  if (isCurrent(generation) && sample.image) {
    try {
      encodeFrame(sample, generation);
    } catch (...) {
      const auto error = std::current_exception();
      reportError("Encoding failed: " + localizedDescription(error), error);
    }
  }
  {
    const std::lock_guard lock(stateLock_);
    pendingFrames_ = std::max(pendingFrames_ - 1, 0);
  }
  reportPendingDepth();
}

void StreamVideoEncoder::encodeFrame(const VideoSample& sample, std::uint64_t generation) {
  const auto size = CaptureDimensions::fitting(sample.image->width(), sample.image->height(),
                                               longEdgeLimit(settings_.profile));
  if (!session_ || encodedSize_ != size) makeSession(size);
  const SharedPixelBuffer image = scaled(sample.image, size);

  bool forceKeyframe = false;
  {
    const std::lock_guard lock(stateLock_);
    std::swap(forceKeyframe, forceNextKeyframe_);
  }
  const MediaStatus status =
      session_->encode(image, sample.presentationMicroseconds, sample.durationMicroseconds, forceKeyframe,
                       [weak = weak_from_this(), generation](
                           MediaStatus outputStatus, const std::shared_ptr<const EncodedSample>& output) {
                         if (const auto self = weak.lock())
                           self->handleOutput(outputStatus, output, generation);
                       });
  if (status == 0) return;
  if (forceKeyframe) requestKeyframe();
  throw failure("VideoToolbox rejected a frame", "OSStatus", status);
}

void StreamVideoEncoder::makeSession(CaptureDimensions size) {
  tearDownSession();
  const auto width = static_cast<std::int32_t>(size.width);
  const auto height = static_cast<std::int32_t>(size.height);
  const VideoCodecType codec = codecType(settings_.codec);
  auto made = sessions_->create(width, height, codec, encoderSpecification(settings_.encoderKind));
  const auto failed = [&made] { return made.status != 0 || !made.session; };
  if (failed() && settings_.encoderKind == StreamVideoEncoderKind::automatic) {
    made = sessions_->create(width, height, codec, std::nullopt);
  }
  const std::string encoderName = title(settings_.codec) + " encoder";
  if (failed()) throw failure("Unable to create the " + encoderName, "OSStatus", made.status);

  // A property that a session does not know leaves it at its own choice.
  for (const auto& property : compressionProperties(settings_)) made.session->setProperty(property);
  if (const MediaStatus status = made.session->prepareToEncode(); status != 0) {
    made.session->invalidate();
    throw failure("Unable to prepare the " + encoderName, "OSStatus", status);
  }

  session_ = std::move(made.session);
  encodedSize_ = size;
  pixelBufferPool_ = transfers_->createPool(width, height);
  ensureTransferSession();
  kLog.info(title(settings_.codec) + " " + title(settings_.encoderKind) + " encoder ready at " +
            std::to_string(width) + "x" + std::to_string(height) + ", " +
            std::to_string(targetBitsPerSecond(settings_.bitRate) / 1'000'000) + " Mbps");
}

void StreamVideoEncoder::tearDownSession() {
  if (session_) {
    session_->completeFrames();
    session_->invalidate();
  }
  session_.reset();
  pixelBufferPool_.reset();
  encodedSize_ = {};
}

void StreamVideoEncoder::ensureTransferSession() {
  if (!transferSession_) transferSession_ = transfers_->createSession();
}

SharedPixelBuffer StreamVideoEncoder::scaled(const SharedPixelBuffer& image, CaptureDimensions size) {
  if (image->width() == size.width && image->height() == size.height &&
      image->format() == PixelFormat::biPlanar420VideoRange) {
    return image;
  }
  ensureTransferSession();
  if (!transferSession_ || !pixelBufferPool_) {
    throw KestruneError::operationFailed("The video scaling pipeline is unavailable.");
  }
  const auto made = pixelBufferPool_->createBuffer();
  if (made.status != 0 || !made.buffer) {
    throw failure("Unable to allocate a scaled video frame", "CVReturn", made.status);
  }
  if (const std::int32_t status = transferSession_->transfer(*image, *made.buffer); status != 0) {
    throw failure("Unable to scale a video frame", "OSStatus", status);
  }
  // A pooled buffer has stale `changes`. Scaling keeps whether the source changed, not where.
  made.buffer->changes = image->changes;
  if (made.buffer->changes && !made.buffer->changes->rectangles.empty()) {
    made.buffer->changes->rectangles = {
        PixelRect{0, 0, static_cast<int>(size.width), static_cast<int>(size.height)}};
  }
  return made.buffer;
}

void StreamVideoEncoder::warmUpTransfer() {
  ensureTransferSession();
  const auto source = transfers_->createBuffer(64, 64);
  const auto destination = transfers_->createBuffer(32, 32);
  if (transferSession_ && source && destination) transferSession_->transfer(*source, *destination);
}

void StreamVideoEncoder::handleOutput(MediaStatus status, const std::shared_ptr<const EncodedSample>& sample,
                                      std::uint64_t generation) {
  if (!isCurrent(generation)) return;
  if (status != 0 || !sample || !sample->isDataReady) {
    const auto error = failure("VideoToolbox failed to produce a frame", "OSStatus", status);
    reportError(error.localizedDescription(), std::make_exception_ptr(error));
    return;
  }

  auto result = annexb::assemble(*sample, settings_.codec);
  auto* unit = std::get_if<annexb::AccessUnit>(&result);
  if (unit == nullptr) {
    const auto* packaging = std::get_if<H264AnnexBError>(&result);
    const std::exception_ptr error = packaging != nullptr
                                         ? std::make_exception_ptr(*packaging)
                                         : std::make_exception_ptr(std::get<KestruneError>(result));
    reportError(title(settings_.codec) + " packet conversion failed: " + localizedDescription(error), error);
    return;
  }
  failureLog_.succeeded();
  if (!callbacks_.onPacket) return;
  const std::int64_t time = std::max<std::int64_t>(sample->presentationMicroseconds.value_or(0), 0);
  callbacks_.onPacket({std::make_shared<const Bytes>(std::move(unit->payload)), unit->isKeyframe,
                       static_cast<std::uint64_t>(time)});
}

bool StreamVideoEncoder::isCurrent(std::uint64_t generation) const {
  const std::lock_guard lock(stateLock_);
  return enabled_ && generation_ == generation;
}

void StreamVideoEncoder::reportPendingDepth() const {
  if (!callbacks_.onPendingDepthChanged) return;
  int depth = 0;
  {
    const std::lock_guard lock(stateLock_);
    depth = pendingFrames_;
  }
  callbacks_.onPendingDepthChanged(depth);
}

void StreamVideoEncoder::reportError(const std::string& logLine, const std::exception_ptr& failure) {
  failureLog_.failed(logLine);
  if (callbacks_.onError) callbacks_.onError(failure);
}

}  // namespace kestrune
