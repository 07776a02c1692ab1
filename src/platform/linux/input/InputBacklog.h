#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>

namespace kestrune::linux_platform {

class InputInjector;

/// An event on its way to the X server.
struct QueuedInput {
  enum class Kind { move, press, release, other };
  Kind kind = Kind::other;
  /// Which button or key is pressed or released: any number that both have in common.
  std::uint32_t control = 0;
  std::function<void(InputInjector&)> send;
};

/// Events that wait for their turn, in order. When kMostWaiting wait, the oldest move of the pointer gives
/// way to a new event; while there is none, new events are refused. The release of what was pressed is never
/// refused nor lost, so that it is at most twice as many that wait. Not for several threads at once.
class InputBacklog {
 public:
  static constexpr std::size_t kMostWaiting = 2048;

  /// False if an event was lost by it, this one or an older one.
  bool push(QueuedInput input);
  std::optional<QueuedInput> pop();
  bool isEmpty() const { return waiting_.empty(); }
  /// For good: what was pressed is forgotten, too.
  void clear();

 private:
  bool evictMove();

  std::deque<QueuedInput> waiting_;
  std::set<std::uint32_t> pressed_;  // as of the newest event that waits
};

}  // namespace kestrune::linux_platform
