#pragma once

#include <cstdint>
#include <span>

namespace kestrune {

/// Cryptographically strong random bytes. Any thread may call.
class RandomSource {
 public:
  virtual ~RandomSource() = default;
  /// Fills `destination`; 0 on success, else a status and nothing usable in `destination`.
  virtual std::int32_t copyBytes(std::span<std::uint8_t> destination) = 0;
};

}  // namespace kestrune
