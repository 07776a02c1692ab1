#pragma once

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Bytes.h"
#include "platform/CompressionSession.h"

namespace kestrune {

/// Parameter sets under a test's hand, the same for both codecs.
class FakeFormatDescription final : public VideoFormatDescription {
 public:
  Summary summary;
  std::vector<ParameterSet> sets;
  std::vector<Bytes> memory;  // what `sets` point into

  static std::shared_ptr<FakeFormatDescription> withSets(std::vector<Bytes> sets, int nalHeaderLength = 4) {
    auto format = std::make_shared<FakeFormatDescription>();
    format->memory = std::move(sets);
    for (const Bytes& set : format->memory) {
      // An empty set is no missing one.
      static const std::uint8_t kNothing = 0;
      format->sets.push_back({0, set.empty() ? &kNothing : set.data(), set.size()});
    }
    format->summary = {0, format->sets.size(), nalHeaderLength};
    return format;
  }

  Summary h264Summary() const override { return summary; }
  ParameterSet h264ParameterSet(std::size_t index) const override { return sets.at(index); }
  Summary hevcSummary() const override { return summary; }
  ParameterSet hevcParameterSet(std::size_t index) const override { return sets.at(index); }
};

class FakeBlockBuffer final : public BlockBuffer {
 public:
  explicit FakeBlockBuffer(Bytes bytes) : bytes_(std::move(bytes)) {}

  std::size_t length() const override { return bytes_.size(); }
  MediaStatus copy(std::size_t offset, std::span<std::uint8_t> destination) const override {
    if (offset + destination.size() > bytes_.size()) return -1;
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), destination.size(),
                destination.begin());
    return 0;
  }

 private:
  Bytes bytes_;
};

/// What a fake session does.
struct FakeSessionBehaviour {
  MediaStatus prepareStatus = 0;
  bool answersAtOnce = false;  // each frame becomes a sample within encode()
};

/// What happened to one fake session. It outlives the session, so that a test can look at it afterwards.
struct FakeSessionRecord : FakeSessionBehaviour {
  struct Frame {
    SharedPixelBuffer image;
    std::optional<std::int64_t> presentationMicroseconds;
    bool forceKeyframe = false;
    CompressionSession::OutputHandler handler;
  };
  std::int32_t width = 0;
  std::int32_t height = 0;
  VideoCodecType codec = VideoCodecType::avc1;
  std::vector<CompressionProperty> properties;
  std::vector<Frame> frames;
  int completeCalls = 0;
  int invalidateCalls = 0;
  std::deque<MediaStatus> encodeStatuses;  // used up from the front, then 0
  bool emitsOnComplete = false;            // completeFrames() gives a sample for the last frame
};

inline std::shared_ptr<const EncodedSample> makeFakeSample(Bytes data, std::optional<bool> isKeyframe,
                                                           std::optional<std::int64_t> microseconds = 0) {
  auto sample = std::make_shared<EncodedSample>();
  sample->isKeyframe = isKeyframe;
  sample->data = std::make_shared<FakeBlockBuffer>(std::move(data));
  sample->presentationMicroseconds = microseconds;
  return sample;
}

class FakeCompressionSession final : public CompressionSession {
 public:
  explicit FakeCompressionSession(std::shared_ptr<FakeSessionRecord> record) : record_(std::move(record)) {}

  MediaStatus setProperty(const CompressionProperty& property) override {
    record_->properties.push_back(property);
    return 0;
  }
  MediaStatus prepareToEncode() override { return record_->prepareStatus; }
  MediaStatus encode(const SharedPixelBuffer& image, std::optional<std::int64_t> presentationMicroseconds,
                     std::int64_t, bool forceKeyframe, OutputHandler handler) override {
    record_->frames.push_back({image, presentationMicroseconds, forceKeyframe, std::move(handler)});
    if (record_->answersAtOnce) {
      record_->frames.back().handler(0, makeFakeSample({0, 0, 0, 1, 0x65}, forceKeyframe));
    }
    if (record_->encodeStatuses.empty()) return 0;
    const MediaStatus status = record_->encodeStatuses.front();
    record_->encodeStatuses.pop_front();
    return status;
  }
  MediaStatus completeFrames() override {
    ++record_->completeCalls;
    if (record_->emitsOnComplete && !record_->frames.empty()) {
      record_->frames.back().handler(0, makeFakeSample({0, 0, 0, 1, 0x41}, false));
    }
    return 0;
  }
  void invalidate() override { ++record_->invalidateCalls; }

 private:
  std::shared_ptr<FakeSessionRecord> record_;
};

/// Gives a session of the present behaviour for every attempt, unless a status was queued for it.
class FakeCompressionSessionFactory final : public CompressionSessionFactory, public FakeSessionBehaviour {
 public:
  std::deque<MediaStatus> createStatuses;  // used up from the front, then 0
  std::vector<std::optional<EncoderSpecification>> attempts;
  std::vector<std::shared_ptr<FakeSessionRecord>> sessions;

  std::size_t frameCount() const {
    std::size_t count = 0;
    for (const auto& session : sessions) count += session->frames.size();
    return count;
  }

  Result create(std::int32_t width, std::int32_t height, VideoCodecType codec,
                const std::optional<EncoderSpecification>& specification) override {
    attempts.push_back(specification);
    if (!createStatuses.empty()) {
      const MediaStatus status = createStatuses.front();
      createStatuses.pop_front();
      if (status != 0) return {status, nullptr};
    }
    auto record = std::make_shared<FakeSessionRecord>();
    static_cast<FakeSessionBehaviour&>(*record) = *this;
    record->width = width;
    record->height = height;
    record->codec = codec;
    sessions.push_back(record);
    return {0, std::make_unique<FakeCompressionSession>(record)};
  }
};

}  // namespace kestrune
