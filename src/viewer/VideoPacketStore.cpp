#include "viewer/VideoPacketStore.h"

#include <utility>

namespace kestrune {
namespace {

std::size_t sizeOf(const EncodedVideoPacket& packet) {
  return packet.payload ? packet.payload->size() : 0;
}

}  // namespace

bool VideoPacketStore::append(EncodedVideoPacket packet) {
  const auto size = sizeOf(packet);
  std::lock_guard guard(lock_);
  if (size > kMaxBytes) {
    ++droppedItems_;
    return false;
  }
  packets_.push_back(std::move(packet));
  storedBytes_ += size;
  while (packets_.size() > kMaxPackets || storedBytes_ > kMaxBytes) {
    storedBytes_ -= sizeOf(packets_.front());
    packets_.pop_front();
    ++droppedItems_;
  }
  return true;
}

std::size_t VideoPacketStore::count() const {
  std::lock_guard guard(lock_);
  return packets_.size();
}

std::uint64_t VideoPacketStore::droppedItems() const {
  std::lock_guard guard(lock_);
  return droppedItems_;
}

void VideoPacketStore::clear() {
  std::lock_guard guard(lock_);
  packets_.clear();
  storedBytes_ = 0;
}

}  // namespace kestrune
