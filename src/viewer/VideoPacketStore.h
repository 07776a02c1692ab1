#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "model/MediaPackets.h"

namespace kestrune {

/// The newest video packets, for the statistics. Bounded in packets and in bytes; the oldest goes first. Any
/// thread may call.
class VideoPacketStore {
 public:
  static constexpr std::size_t kMaxPackets = 90;
  static constexpr std::size_t kMaxBytes = 4'194'304;

  /// False if the packet alone is larger than the store.
  bool append(EncodedVideoPacket packet);
  std::size_t count() const;
  /// Packets that were refused, or evicted.
  std::uint64_t droppedItems() const;
  void clear();

 private:
  mutable std::mutex lock_;  // guards everything below
  std::deque<EncodedVideoPacket> packets_;
  std::size_t storedBytes_ = 0;
  std::uint64_t droppedItems_ = 0;
};

}  // namespace kestrune
