#include "platform/support/ConstantTime.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace kestrune {

bool constantTimeEquals(std::string_view a, std::string_view b) {
  // First, so that texts of different lengths take no early exit.
  const bool hasSameBytes = CRYPTO_memcmp(a.data(), b.data(), std::min(a.size(), b.size())) == 0;
  return hasSameBytes && a.size() == b.size();
}

}  // namespace kestrune
