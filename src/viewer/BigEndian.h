#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

namespace kestrune {

/// Numbers in network byte order. The caller vouches for sizeof(Number) bytes at the address.

template <std::unsigned_integral Number>
void writeBigEndian(std::uint8_t* out, Number value) {
  for (std::size_t index = sizeof(Number); index-- > 0;) {
    out[index] = static_cast<std::uint8_t>(value & 0xFF);
    if constexpr (sizeof(Number) > 1) value = static_cast<Number>(value >> 8);
  }
}

template <std::unsigned_integral Number>
Number readBigEndian(const std::uint8_t* in) {
  Number value = 0;
  for (std::size_t index = 0; index < sizeof(Number); ++index) {
    if constexpr (sizeof(Number) > 1) value = static_cast<Number>(value << 8);
    value = static_cast<Number>(value | in[index]);
  }
  return value;
}

}  // namespace kestrune
