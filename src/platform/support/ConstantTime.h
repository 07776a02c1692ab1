#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kestrune {

/// Whether two texts have the same bytes, in a time that depends on the longer length alone and on no
/// content, so that a guess learns nothing from how long its refusal took.
inline bool constantTimeEquals(std::string_view a, std::string_view b) {
  // Volatile: no early exit may be derived from the accumulator.
  volatile std::size_t difference = a.size() ^ b.size();
  const std::size_t longer = std::max(a.size(), b.size());
  for (std::size_t index = 0; index < longer; ++index) {
    const auto left = static_cast<unsigned char>(index < a.size() ? a[index] : '\0');
    const auto right = static_cast<unsigned char>(index < b.size() ? b[index] : '\0');
    difference = difference | static_cast<std::size_t>(left ^ right);
  }
  return difference == 0;
}

}  // namespace kestrune
