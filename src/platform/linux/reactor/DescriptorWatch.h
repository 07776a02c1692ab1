#pragma once

#include <functional>
#include <memory>

namespace kestrune::linux_platform {

class Reactor;

enum class Readiness { readable, writable, readableOrWritable, failed };

/// Calls a handler on a reactor's queue whenever a descriptor is ready, and goes on for as long as it is.
///
/// The descriptor is the caller's: it is made non-blocking, must stay open for as long as it is watched, and
/// has one watch at a time. `failed` means a peer that is gone or an error; the others include that.
class DescriptorWatch {
 public:
  DescriptorWatch() = default;
  /// Any thread. Throws a std::system_error for a descriptor that is not open.
  DescriptorWatch(std::shared_ptr<Reactor> reactor, int descriptor, Readiness readiness,
                  std::function<void()> handler);
  DescriptorWatch(DescriptorWatch&&) = default;
  DescriptorWatch& operator=(DescriptorWatch&& other) noexcept;
  ~DescriptorWatch() { cancel(); }

  /// The handler is not called again; on another thread than the reactor's this waits for a call that runs.
  /// Idempotent; the handler may do it.
  void cancel();

 private:
  class State;

  std::shared_ptr<Reactor> reactor_;  // outlives the state
  std::shared_ptr<State> state_;
};

}  // namespace kestrune::linux_platform
