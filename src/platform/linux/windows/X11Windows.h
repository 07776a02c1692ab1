#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/Windows.h"
#include "platform/linux/windows/WindowPlacement.h"
#include "platform/linux/windows/WindowTree.h"
#include "platform/linux/x11/X11Server.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {

/// The windows of an X server, in its global points: of a window manager that follows EWMH as that lists
/// them, else those that stand on the root window. A window belongs to the process that _NET_WM_PID names, if
/// its WM_CLIENT_MACHINE is this machine.
///
/// The bounds are the client's area without the window manager's frame and without shadows; a window that is
/// placed gets the area with its frame, so that nothing of it stands out.
///
/// A thread ("x11-windows") has the connection and alone waits for the server. A call waits for that thread
/// for kAnswerLimit; while one is unanswered, and while there is no connection, further calls find nothing at
/// once. It connects at once, and again a second after a failure.
class X11Windows final : public Windows {
 public:
  static constexpr std::chrono::milliseconds kAnswerLimit{250};

  explicit X11Windows(std::shared_ptr<const X11Server> server);
  ~X11Windows() override;
  X11Windows(const X11Windows&) = delete;
  X11Windows& operator=(const X11Windows&) = delete;

  std::vector<WindowInfo> onScreenWindows() override;
  bool placeFirstWindow(ProcessID process, const Rect& frame) override;

  // Neither waits. Any thread.

  /// Brings the first window of a process to the front and gives it the keyboard.
  void activate(ProcessID process);
  /// Brings back all windows of a process that are minimized.
  void unhide(ProcessID process);

 private:
  enum class State { connecting, connected, lost };
  struct Session;
  using Work = std::function<void(const Session&)>;

  template <class Result>
  std::optional<Result> ask(std::function<Result(const Session&)> question);
  void tell(Work work);

  // On the thread.
  void connect();
  bool run(const Work& work);

  const std::shared_ptr<const X11Server> server_;
  const std::shared_ptr<X11Interrupt> interrupt_ = std::make_shared<X11Interrupt>();

  std::mutex lock_;  // guards the next four
  State state_ = State::connecting;
  bool isAsked_ = false;  // a question is on the queue or runs
  int told_ = 0;          // works of tell() on the queue
  std::condition_variable answered_;

  std::unique_ptr<Session> session_;  // the thread's

  const std::unique_ptr<ThreadQueue> queue_;  // "x11-windows"; last, since its work uses the rest
};

}  // namespace kestrune::linux_platform
