#include "platform/linux/video/RateBudget.h"

#include <algorithm>

namespace kestrune::linux_platform {

RateBudget::RateBudget(std::int64_t bitsPerSecond, std::int64_t bucketBits, double initialFill)
    : bitsPerMicrosecond_(static_cast<double>(bitsPerSecond) / 1'000'000),
      size_(static_cast<double>(bucketBits)),
      fill_(size_ * initialFill),
      modelFill_(fill_) {}

double RateBudget::creditForFrame(std::optional<std::int64_t> presentationMicroseconds,
                                  std::int64_t nominalMicroseconds) {
  std::int64_t elapsed = nominalMicroseconds;
  if (presentationMicroseconds && lastMicroseconds_) elapsed = *presentationMicroseconds - *lastMicroseconds_;
  if (presentationMicroseconds) {
    lastMicroseconds_ = presentationMicroseconds;
  } else if (lastMicroseconds_) {
    lastMicroseconds_ = *lastMicroseconds_ + nominalMicroseconds;
  }
  // Time that runs backwards brings nothing.
  const double gained = static_cast<double>(std::max<std::int64_t>(elapsed, 0)) * bitsPerMicrosecond_;
  fill_ = std::min(size_, fill_ + gained);
  return std::clamp(fill_ - modelFill_, 0.0, size_);
}

void RateBudget::noteEncoded(std::int64_t bits, double creditedBits) {
  const auto taken = static_cast<double>(bits);
  fill_ -= taken;
  modelFill_ = std::min(size_, std::max(0.0, modelFill_ - taken) + creditedBits);
}

}  // namespace kestrune::linux_platform
