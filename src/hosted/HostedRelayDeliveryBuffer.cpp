#include "hosted/HostedRelayDeliveryBuffer.h"

#include <iterator>
#include <utility>

namespace kestrune {
namespace {
constexpr std::size_t kCompactionThreshold = 65;  // spent packets
}  // namespace

bool HostedRelayDeliveryBuffer::append(GatheredBytes data, bool keepOverlap, double now) {
  trimOverlap(now);
  const std::size_t size = data.size();
  const std::size_t copies = keepOverlap ? 2 : 1;
  const std::size_t room = kMaxBytes - pendingBytes_ - overlapBytes_;
  if (size > room / copies) return false;
  if (pendingCount() + overlapCount() + copies > kMaxPackets) return false;

  const Packet packet{std::make_shared<const GatheredBytes>(std::move(data)), now, nextSequence_};
  if (++nextSequence_ == 0) nextSequence_ = 1;
  pending_.push_back(packet);
  pendingBytes_ += size;
  if (keepOverlap) {
    overlap_.push_back(packet);
    overlapBytes_ += size;
  }
  return true;
}

void HostedRelayDeliveryBuffer::trimOverlap(double now) {
  while (overlapIndex_ < overlap_.size() && now - overlap_[overlapIndex_].capturedAt > kOverlapSeconds) {
    const auto spent = std::exchange(overlap_[overlapIndex_].data, nullptr);
    overlapBytes_ -= spent->size();
    ++overlapIndex_;
  }
  compact(overlap_, overlapIndex_);
}

HostedRelayDeliveryBuffer::SharedPacketData HostedRelayDeliveryBuffer::takeFirst() {
  if (!hasPending()) return nullptr;
  auto data = std::exchange(pending_[pendingIndex_].data, nullptr);
  pendingBytes_ -= data->size();
  ++pendingIndex_;
  compact(pending_, pendingIndex_);
  return data;
}

void HostedRelayDeliveryBuffer::prepareRetention(std::int64_t targetMilliseconds, double now) {
  if (retentionDeadline_) return;
  const std::uint64_t firstUnsent = hasPending() ? pending_[pendingIndex_].sequence : nextSequence_;
  Packets replay;
  std::size_t replayBytes = 0;
  for (std::size_t index = overlapIndex_; index < overlap_.size(); ++index) {
    if (overlap_[index].sequence >= firstUnsent) continue;
    replayBytes += overlap_[index].data->size();
    replay.push_back(std::move(overlap_[index]));
  }
  const auto unsent = std::next(pending_.begin(), static_cast<std::ptrdiff_t>(pendingIndex_));
  replay.insert(replay.end(), std::make_move_iterator(unsent), std::make_move_iterator(pending_.end()));
  pending_ = std::move(replay);
  pendingIndex_ = 0;
  pendingBytes_ += replayBytes;
  overlap_.clear();
  overlapIndex_ = 0;
  overlapBytes_ = 0;
  retentionDeadline_ = now + static_cast<double>(targetMilliseconds) / 1000.0;
}

void HostedRelayDeliveryBuffer::reset() {
  *this = HostedRelayDeliveryBuffer();
}

void HostedRelayDeliveryBuffer::compact(Packets& packets, std::size_t& index) {
  if (index < kCompactionThreshold || packets.size() > 2 * index) return;
  packets.erase(packets.begin(), std::next(packets.begin(), static_cast<std::ptrdiff_t>(index)));
  index = 0;
}

}  // namespace kestrune
