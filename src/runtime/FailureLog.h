#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/Clock.h"
#include "runtime/Log.h"

namespace kestrune {

/// Logs failures that may come with every frame without flooding the log. A text is logged at once when it
/// first comes; from then on only how often it came again, at intervals that double from kFirstInterval to
/// kLongestInterval, and at the end of this object. A failure that has stayed away for kQuiet when something
/// succeeds is over: that is logged too if it had come more than once, and when it comes again it is new.
///
/// Any thread may call.
class FailureLog {
 public:
  static constexpr Duration kFirstInterval = std::chrono::seconds(10);
  static constexpr Duration kLongestInterval = std::chrono::minutes(10);
  static constexpr Duration kQuiet = std::chrono::seconds(5);
  /// Texts that are counted at a time; beyond that, the one that has stayed away longest is forgotten.
  static constexpr std::size_t kMostTexts = 8;

  FailureLog(Logger log, std::shared_ptr<const Clock> clock);
  ~FailureLog();
  FailureLog(const FailureLog&) = delete;
  FailureLog& operator=(const FailureLog&) = delete;

  void failed(const std::string& text);
  /// What could have failed did not. Costs next to nothing while nothing has.
  void succeeded();

 private:
  struct Run {
    std::string text;
    std::uint64_t count = 1;
    std::uint64_t unlogged = 0;
    Duration last{};
    Duration interval = kFirstInterval;
    Duration nextSummary{};
  };

  const Logger log_;
  const std::shared_ptr<const Clock> clock_;
  std::atomic<bool> hasRuns_{false};  // written under lock_
  std::mutex lock_;                   // guards runs_
  std::vector<Run> runs_;
};

}  // namespace kestrune
