#include "capture/CaptureMetrics.h"

#include <utility>

namespace kestrune {
namespace {

constexpr double kRateWindowSeconds = 1.0;

}  // namespace

StreamMetrics CaptureMetrics::restart() {
  const std::lock_guard guard(lock_);
  metrics_ = {};
  beginWindow();
  return metrics_;
}

void CaptureMetrics::restartWindow() {
  const std::lock_guard guard(lock_);
  beginWindow();
}

std::optional<StreamMetrics> CaptureMetrics::countCaptured() {
  const std::lock_guard guard(lock_);
  ++metrics_.capturedFrames;
  ++windowCaptured_;
  return tick();
}

std::optional<StreamMetrics> CaptureMetrics::countEncoded(std::uint64_t bytes) {
  const std::lock_guard guard(lock_);
  ++metrics_.encodedFrames;
  ++windowEncoded_;
  windowBytes_ += bytes;
  return tick();
}

StreamMetrics CaptureMetrics::countDropped() {
  const std::lock_guard guard(lock_);
  ++metrics_.droppedFrames;
  return metrics_;
}

void CaptureMetrics::setPendingFrames(std::int64_t frames) {
  const std::lock_guard guard(lock_);
  metrics_.encoderPendingFrames = frames;
}

StreamMetrics CaptureMetrics::setLastError(std::string message) {
  const std::lock_guard guard(lock_);
  metrics_.lastError = std::move(message);
  return metrics_;
}

StreamMetrics CaptureMetrics::current() const {
  const std::lock_guard guard(lock_);
  return metrics_;
}

std::optional<StreamMetrics> CaptureMetrics::tick() {
  const double elapsed = clock_->uptimeSeconds() - windowStart_;
  if (elapsed < kRateWindowSeconds) return std::nullopt;
  metrics_.captureFPS = static_cast<double>(windowCaptured_) / elapsed;
  metrics_.encodeFPS = static_cast<double>(windowEncoded_) / elapsed;
  metrics_.bitRateMbps = static_cast<double>(windowBytes_) * 8 / elapsed / 1'000'000;
  beginWindow();
  return metrics_;
}

void CaptureMetrics::beginWindow() {
  windowStart_ = clock_->uptimeSeconds();
  windowCaptured_ = windowEncoded_ = windowBytes_ = 0;
}

}  // namespace kestrune
