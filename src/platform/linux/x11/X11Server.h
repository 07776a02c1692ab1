#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/x11/DisplayLayout.h"
#include "platform/linux/x11/EventFd.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// What the adapters need to know of an X server, so that none of them has to ask it for each event: its
/// displays and what it lets this process do. One thread ("x11-server") keeps a connection, reads it all when
/// it has connected and the layout again whenever the server announces a change. After the loss of the
/// connection nothing is known; it is tried anew once a second.
class X11Server {
 public:
  struct State {
    DisplayLayout layout;        // no displays while the server cannot be reached
    bool canReadScreen = false;  // one pixel of the root window could be read
    bool hasTestInput = false;   // XTEST
    std::string failure;         // for a person: why nothing is known
  };
  using SharedState = std::shared_ptr<const State>;

  /// Waits for the first answer, or for the failure to
  /// get one (X11Watchdog::kAnswerLimit at most for the connection and again for each answer).
  explicit X11Server(X11Address address = {});
  ~X11Server();
  X11Server(const X11Server&) = delete;
  X11Server& operator=(const X11Server&) = delete;

  const X11Address& address() const { return address_; }
  /// As last announced; never null. Any thread; does not wait.
  SharedState state() const;
  /// Asks the server anew, then calls `done` on the thread of this object with what is known then. Any
  /// thread; does not wait. What is asked for at the end of this object is answered with what was known.
  void refresh(std::function<void(const State&)> done);

 private:
  using Requests = std::vector<std::function<void(const State&)>>;

  void run();
  /// Returns at the end of this object; throws an X11Error when the connection is lost.
  void follow(const X11Connection& connection);
  void publish(State state);
  Requests takeRequests();
  void answer(const Requests& requests) const;
  bool isStopping() const { return interrupt_->isInterrupted(); }

  const X11Address address_;
  const EventFd wake_;
  const std::shared_ptr<X11Interrupt> interrupt_ = std::make_shared<X11Interrupt>();  // ends the thread
  mutable std::mutex lock_;                                                           // guards the two below
  SharedState state_;  // null until the first answer
  Requests requests_;
  std::condition_variable answered_;
  std::thread thread_;
};

}  // namespace kestrune::linux_platform
