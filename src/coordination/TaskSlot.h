#pragma once

#include <functional>
#include <utility>

#include "runtime/Task.h"

namespace kestrune {

/// Starts a flow on the main queue that keeps its owner alive until it ends.
using FlowStarter = std::function<TaskHandle(Task<void> flow)>;

/// Owns at most one running task; free again when that task has ended.
class TaskSlot {
 public:
  bool isRunning() const { return task_ && !task_.isFinished(); }
  void hold(TaskHandle task) { task_ = std::move(task); }
  /// Asks the task to end; it runs until it has.
  void cancel() const { task_.cancel(); }
  /// For a task without waiters.
  void cancelAndForget() {
    task_.cancel();
    task_.reset();
  }
  /// Returns when the task that is there now has ended.
  Task<void> join() const {
    const TaskHandle task = task_;
    co_await task.finished();
  }

 private:
  TaskHandle task_;
};

}  // namespace kestrune
