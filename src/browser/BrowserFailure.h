#pragma once

#include <string_view>

#include "model/KestruneError.h"
#include "platform/Bundle.h"

namespace kestrune {

/// An operationFailed of a text that the user sees in his language.
inline KestruneError browserFailure(std::string_view english) {
  return KestruneError::operationFailed(localized(english));
}

}  // namespace kestrune
