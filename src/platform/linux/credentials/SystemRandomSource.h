#pragma once

#include "platform/RandomSource.h"

namespace kestrune::linux_platform {

/// The kernel's generator (getrandom(2)). A failure's status is the errno.
class SystemRandomSource final : public RandomSource {
 public:
  std::int32_t copyBytes(std::span<std::uint8_t> destination) override;
};

}  // namespace kestrune::linux_platform
