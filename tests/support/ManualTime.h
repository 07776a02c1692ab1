#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "runtime/SerialQueue.h"
#include "runtime/WorkSchedule.h"

namespace kestrune {

/// Time and queues under a test's hand. All queues made by one ManualTime share its clock and one line of
/// work, so that everything happens in one order that never varies, and in no real time.
///
/// Work runs only inside runReady() and advance(), on the calling thread. While nothing runs, every manual
/// queue counts as current, so that a test may call what belongs to a queue directly. Work may be posted from
/// any thread. Must be owned by a shared_ptr.
class ManualTime final : public Clock, public std::enable_shared_from_this<ManualTime> {
 public:
  static std::shared_ptr<ManualTime> make() { return std::make_shared<ManualTime>(); }
  ~ManualTime() override { discardAll(); }

  std::shared_ptr<SerialQueue> makeQueue(std::string name = "manual");

  /// Runs work, and what it posts, until nothing is ready. Time stands still. Ends the process after a
  /// million pieces: work that posts itself without a delay would never end.
  void runReady();
  /// Moves time on by `span`, stopping at each instant at which work is due, in order.
  void advance(Duration span);
  /// Drops all work that has not run.
  void discardAll();
  /// Pieces of delayed work that wait and are not cancelled.
  std::size_t pendingDelayedWork() const;

  Duration continuousNow() const override;
  double uptimeSeconds() const override;
  std::int64_t wallClockMilliseconds() const override;

 private:
  class Queue;
  void runUntilEmpty();

  mutable std::mutex lock_;  // guards everything below
  Duration now_ = std::chrono::hours(1);
  WorkSchedule schedule_;
  const Queue* running_ = nullptr;
  bool inRun_ = false;
};

}  // namespace kestrune
