#pragma once

#include <cstdint>

namespace kestrune {

/// Facts about the machine that do not change while the program runs.
struct SystemInformation {
  std::uint64_t physicalMemoryBytes = 0;
  // of the operating system
  std::int64_t versionMajor = 0;
  std::int64_t versionMinor = 0;
  std::int64_t versionPatch = 0;
};

}  // namespace kestrune
