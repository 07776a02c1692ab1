#pragma once

#include <string_view>

namespace kestrune {

/// Whether two texts have the same bytes, in a time that depends on the lengths alone and on no content, so
/// that a guess learns nothing from how long its refusal took.
bool constantTimeEquals(std::string_view a, std::string_view b);

}  // namespace kestrune
