#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "model/StreamMetrics.h"
#include "runtime/Clock.h"

namespace kestrune {

/// The counters and rates of a capture stream. Any thread may call. There is no timer: the rates are computed
/// when a frame or a packet finds the window a second old or older, over the window's real length, and only
/// then is there a snapshot to report.
class CaptureMetrics {
 public:
  explicit CaptureMetrics(std::shared_ptr<const Clock> clock) : clock_(std::move(clock)) {}

  /// Zeroes everything and begins a window; gives the zeroed record.
  StreamMetrics restart();
  /// Begins a window alone. For before a stream starts: its first frames may come while the start is still on
  /// its way, and the window of the stream before it would give them a rate over all the time in between.
  void restartWindow();
  std::optional<StreamMetrics> countCaptured();
  std::optional<StreamMetrics> countEncoded(std::uint64_t bytes);
  StreamMetrics countDropped();
  void setPendingFrames(std::int64_t frames);
  StreamMetrics setLastError(std::string message);
  StreamMetrics current() const;

 private:
  // Both under lock_.
  std::optional<StreamMetrics> tick();
  void beginWindow();

  const std::shared_ptr<const Clock> clock_;
  mutable std::mutex lock_;  // guards everything below
  StreamMetrics metrics_;
  double windowStart_ = 0;  // seconds of uptime
  std::uint64_t windowCaptured_ = 0;
  std::uint64_t windowEncoded_ = 0;
  std::uint64_t windowBytes_ = 0;
};

}  // namespace kestrune
