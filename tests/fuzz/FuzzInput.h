#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

/// Divides an input into pieces that the input itself chooses: a byte with the size of a piece, the piece,
/// and so on; 0 stands for all the rest.
inline std::vector<std::string> fuzzPieces(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> pieces;
  while (size > 1) {
    const std::size_t wanted = *data == 0 ? size - 1 : *data;
    const auto length = std::min(wanted, size - 1);
    pieces.emplace_back(reinterpret_cast<const char*>(data + 1), length);
    data += 1 + length;
    size -= 1 + length;
  }
  return pieces;
}

/// What must hold for every input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

}  // namespace kestrune
