#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace kestrune {

/// ASCII only: protocol words must not depend on a locale.
inline std::string lowerCased(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

/// Without the spaces and tabs on both sides.
inline std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Cuts the piece before `separator` off the front of `rest`, which ends empty when there was no separator.
inline std::string_view cutPiece(std::string_view& rest, std::string_view separator) {
  const auto end = std::min(rest.find(separator), rest.size());
  const auto piece = rest.substr(0, end);
  rest.remove_prefix(std::min(end + separator.size(), rest.size()));
  return piece;
}

}  // namespace kestrune
