#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kestrune {

/// What is held off during an activity (NSActivityOptions); bits are combined by |.
using ActivityOptions = std::uint64_t;
inline constexpr ActivityOptions kActivityIdleDisplaySleepDisabled = std::uint64_t{1} << 40;
inline constexpr ActivityOptions kActivityIdleSystemSleepDisabled = std::uint64_t{1} << 20;
/// Something the user asked for: no idle system sleep, and more that only some systems have.
inline constexpr ActivityOptions kActivityUserInitiated = 0x00FF'FFFF;

/// A running activity. Its destruction ends it, on any thread, at once and without a wait.
class Activity {
 public:
  virtual ~Activity() = default;
  Activity(const Activity&) = delete;
  Activity& operator=(const Activity&) = delete;

 protected:
  Activity() = default;
};

/// The activities of this process (NSProcessInfo). They end with the process, however that ends.
class Activities {
 public:
  virtual ~Activities() = default;

  /// Any thread may call. Returns at once and never fails: what the system cannot hold off is logged.
  /// `reason` is a text for the user. The activity may outlive this object, and then holds nothing.
  virtual std::unique_ptr<Activity> beginActivity(ActivityOptions options, std::string reason) = 0;
};

}  // namespace kestrune
