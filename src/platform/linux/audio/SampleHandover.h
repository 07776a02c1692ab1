#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/AudioSample.h"
#include "runtime/SerialQueue.h"

namespace kestrune::linux_platform {

/// Hands samples over on a queue. At most a second of sound waits there; beyond that the oldest goes, so that
/// a receiver that was held up goes on with what is new. Any thread may call.
class SampleHandover : public std::enable_shared_from_this<SampleHandover> {
 public:
  using Output = std::function<void(AudioSample sample)>;
  static constexpr std::size_t kMaximumWaiting = 50;  // of 20 ms each

  SampleHandover(std::shared_ptr<SerialQueue> queue, Output output);
  void push(AudioSample sample);
  /// Nothing is handed over any more, except what the queue is at already.
  void close();

 private:
  void deliverOldest();  // on queue_

  const std::shared_ptr<SerialQueue> queue_;
  const Output output_;
  std::mutex lock_;  // guards everything below
  /// As many as there are pieces of work on the queue, which take one each.
  std::deque<AudioSample> waiting_;
  bool isClosed_ = false;
};

}  // namespace kestrune::linux_platform
