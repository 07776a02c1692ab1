#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrune::linux_platform {

/// Ends waits for an X server that does not answer: xcb has no time limit, neither for replies nor for
/// writing. A wait that has lasted for kAnswerLimit has its socket shut down, after which every xcb call on
/// the connection fails at once.
///
/// One thread ("x11-watchdog") serves all connections of the process, and sleeps while none is used. It
/// counts its own turns and not the clock, so that a process that was stopped or starved does not count the
/// server as hung. Any thread may call.
class X11Watchdog {
 public:
  static constexpr std::chrono::milliseconds kTurn{500};
  static constexpr std::chrono::milliseconds kAnswerLimit{3000};

  /// One connection. Waits of one thread at a time.
  class Line {
   public:
    /// True once a wait was ended.
    bool isHung() const { return isHung_; }

   private:
    friend class X11Watchdog;
    Line(X11Watchdog& watchdog, int descriptor) : watchdog_(watchdog), descriptor_(descriptor) {}

    X11Watchdog& watchdog_;
    const int descriptor_;
    std::atomic<std::uint64_t> waits_{0};  // begun and ended: odd while one lasts
    std::atomic<bool> isHung_{false};
    std::uint64_t seen_ = 0;  // the watchdog's thread: waits_ at its last turn
    int turns_ = 0;           // the watchdog's thread: how many turns the present wait has lasted
  };

  /// The one of the process, which ends with the last that holds it.
  static std::shared_ptr<X11Watchdog> shared();
  X11Watchdog();
  ~X11Watchdog();
  X11Watchdog(const X11Watchdog&) = delete;
  X11Watchdog& operator=(const X11Watchdog&) = delete;

  /// `descriptor` is the connection's socket; it must stay open until remove().
  std::shared_ptr<Line> add(int descriptor);
  void remove(const std::shared_ptr<Line>& line);

  /// False, and nothing changes, if a wait lasts already.
  static bool beginWait(Line& line);
  static void endWait(Line& line);

 private:
  void run();
  /// Whether anything was waited for since the last turn.
  bool takeTurn();
  void wake();

  std::mutex lock_;  // guards lines_ and isOver_
  std::condition_variable changed_;
  std::vector<std::shared_ptr<Line>> lines_;
  bool isOver_ = false;
  std::atomic<bool> isAsleep_{false};
  std::thread thread_;
};

}  // namespace kestrune::linux_platform
