#pragma once

#include <cstdint>
#include <optional>

namespace kestrune::linux_platform {

/// The leaky bucket that holds a session to its rate in real time.
///
/// Bits come back at a steady rate up to the bucket's size, and every frame takes its own out. In any span of
/// t seconds no more than size + rate * t can go out, and a pause is never worth more than the bucket.
///
/// The encoders' own buffer models know nothing of pauses: they credit one frame interval with every frame.
/// This class follows both, and says how much the encoder's model is to be credited with a frame so that it
/// agrees with the real bucket after it. What came back since the frame before is thus known to the encoder
/// one frame late, never early.
class RateBudget {
 public:
  /// The model starts at `initialFill` of its size, as the encoder's does.
  RateBudget(std::int64_t bitsPerSecond, std::int64_t bucketBits, double initialFill);

  /// Before each frame: bits to credit the encoder's model with after it, from 0 to the bucket's size. A
  /// frame without a time counts as `nominalMicroseconds` after the one before it.
  double creditForFrame(std::optional<std::int64_t> presentationMicroseconds,
                        std::int64_t nominalMicroseconds);
  /// After each frame: what it took, and what the model was really credited with.
  void noteEncoded(std::int64_t bits, double creditedBits);

  /// Bits that may go out now; negative after a frame that took more than there was.
  double available() const { return fill_; }

 private:
  double bitsPerMicrosecond_;
  double size_;
  double fill_;       // the real bucket
  double modelFill_;  // the encoder's
  std::optional<std::int64_t> lastMicroseconds_;
};

}  // namespace kestrune::linux_platform
