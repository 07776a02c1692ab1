#include "web/HttpRoute.h"

#include <algorithm>

namespace kestrune::service {

bool matchesPattern(std::string_view pattern, const std::vector<std::string>& segments) {
  for (const auto& segment : segments) {
    if (pattern.empty()) return false;
    const auto end = std::min(pattern.find('/'), pattern.size());
    const auto expected = pattern.substr(0, end);
    if (!expected.starts_with('{') && expected != segment) return false;
    pattern.remove_prefix(std::min(end + 1, pattern.size()));
  }
  return pattern.empty();
}

}  // namespace kestrune::service
