#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/Bytes.h"
#include "runtime/SerialQueue.h"

namespace kestrune::linux_platform {

/// The event loop of a network and its serial queue. Internal to this folder.
///
/// Work and timers are kept here rather than in the loop, so that they run first in first out whatever thread
/// they come from, and by a clock that goes on while the machine sleeps (a timerfd on CLOCK_BOOTTIME).
class AsioReactor final : public SerialQueue, public std::enable_shared_from_this<AsioReactor> {
 public:
  explicit AsioReactor(std::string name);
  ~AsioReactor() override;

  /// Runs the loop on the calling thread until stop().
  void run();
  /// Ends run() after what was posted so far. Any thread.
  void stop();

  void post(Work work) override;
  DelayedWork postAfter(Duration delay, Work work) override;
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

  boost::asio::io_context& context() { return context_; }
  /// One read buffer for all connections, used within one turn of the loop: an idle connection holds none.
  Bytes& readBuffer() { return readBuffer_; }
  /// Connections that are open, on the queue.
  std::size_t openConnections = 0;

 private:
  // By due time, then by order of scheduling.
  using Timers = std::map<std::pair<Duration, std::uint64_t>, std::shared_ptr<DelayedWork::State>>;

  void runReady();
  void watchTimer();
  void onTimer();
  void wakeLocked();
  void armLocked();
  void pruneLocked();

  const std::string name_;
  Bytes readBuffer_;  // on the queue

  std::mutex lock_;  // guards the next six
  std::deque<Work> ready_;
  Timers timers_;
  std::uint64_t nextTimer_ = 0;
  std::size_t pruneAt_ = 0;
  bool isWoken_ = false;
  enum class Phase { open, stopping, ended } phase_ = Phase::open;

  boost::asio::io_context context_{1};
  boost::asio::posix::stream_descriptor timer_{context_};
};

}  // namespace kestrune::linux_platform
