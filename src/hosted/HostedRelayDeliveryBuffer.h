#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Bytes.h"

namespace kestrune {

/// The media of one relay between their making and their arrival: what has not gone out yet (`pending`), and
/// for a few seconds what has gone out but may be lost with its socket (`overlap`). When the socket breaks,
/// the second kind is put back in front of the first. A plain value; times are seconds of uptime. The lists
/// share the packets.
class HostedRelayDeliveryBuffer {
 public:
  /// Of both lists together; a packet in both counts twice.
  static constexpr std::size_t kMaxBytes = 25'165'824;
  /// Likewise. Over a minute of 60 frames and 50 audio packets a second: the bytes are the limit that counts,
  /// but a packet costs memory however small it is.
  static constexpr std::size_t kMaxPackets = 8192;
  /// An overlap packet that is older is dropped.
  static constexpr double kOverlapSeconds = 5.0;

  using SharedPacketData = std::shared_ptr<const GatheredBytes>;

  /// Whether there was room; otherwise nothing but old overlap has changed. `keepOverlap`: the packet may be
  /// needed for a replay after it has gone out.
  bool append(GatheredBytes data, bool keepOverlap, double now);
  void trimOverlap(double now);
  /// The next packet to send, or null.
  SharedPacketData takeFirst();

  /// Puts what has gone out back in front, and sets the deadline. Nothing if one is set already.
  void prepareRetention(std::int64_t targetMilliseconds, double now);
  void endRetention() { retentionDeadline_.reset(); }
  /// When what is held is given up; none while packets go out.
  std::optional<double> retentionDeadline() const { return retentionDeadline_; }
  void reset();

  bool hasPending() const { return pendingIndex_ < pending_.size(); }
  std::size_t pendingCount() const { return pending_.size() - pendingIndex_; }
  std::size_t pendingBytes() const { return pendingBytes_; }
  std::size_t overlapCount() const { return overlap_.size() - overlapIndex_; }
  std::size_t overlapBytes() const { return overlapBytes_; }

 private:
  struct Packet {
    SharedPacketData data;  // the whole message; null once it is spent
    double capturedAt = 0;
    std::uint64_t sequence = 0;
  };
  using Packets = std::vector<Packet>;

  /// Removes the spent packets before `index` in bulk, so that spending one costs constant time.
  static void compact(Packets& packets, std::size_t& index);

  Packets pending_;
  std::size_t pendingBytes_ = 0;  // of those not spent
  Packets overlap_;               // in the order of time
  std::size_t overlapBytes_ = 0;  // of those not spent
  std::optional<double> retentionDeadline_;
  std::size_t pendingIndex_ = 0;    // those before it are spent
  std::size_t overlapIndex_ = 0;    // likewise
  std::uint64_t nextSequence_ = 1;  // never 0
};

}  // namespace kestrune
