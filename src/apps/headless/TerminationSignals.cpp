#include "TerminationSignals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>

#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kLog("App");
constexpr int kForcedExit = 1;

bool isIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t terminationSignals() {
  sigset_t set;
  sigemptyset(&set);
  // A shell without job control starts a program in the background with SIGINT ignored, and means nothing by
  // it.
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  // The terminal was closed. Whoever ignores that at our start, such as nohup, wants us to outlive it; a
  // blocked signal would reach us all the same.
  if (!isIgnored(SIGHUP)) sigaddset(&set, SIGHUP);
  return set;
}

int checked(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signals");
  return descriptor;
}

}  // namespace

void TerminationSignals::block() {
  const sigset_t set = terminationSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

TerminationSignals::TerminationSignals(std::shared_ptr<SerialQueue> queue, std::function<void()> handler)
    : signals_([] {
        const sigset_t set = terminationSignals();
        return checked(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
      }()),
      end_(checked(eventfd(0, EFD_CLOEXEC))),
      thread_([this, queue = std::move(queue), handler = std::move(handler)] { wait(queue, handler); }) {}

TerminationSignals::~TerminationSignals() {
  const std::uint64_t one = 1;
  if (write(end_, &one, sizeof one) == sizeof one) {
    thread_.join();
  } else {
    thread_.detach();
  }
  close(signals_);
  close(end_);
}

void TerminationSignals::wait(const std::shared_ptr<SerialQueue>& queue,
                              const std::function<void()>& handler) const {
  pthread_setname_np(pthread_self(), "signals");
  using namespace std::chrono;
  std::optional<steady_clock::time_point> deadline;
  for (;;) {
    const auto left = deadline ? ceil<milliseconds>(*deadline - steady_clock::now()).count() : -1;
    if (deadline && left <= 0) {
      kLog.error("The shutdown does not come to its end; the program ends without it");
      _exit(kForcedExit);
    }
    pollfd waited[] = {{signals_, POLLIN, 0}, {end_, POLLIN, 0}};
    if (poll(waited, 2, static_cast<int>(left)) < 0 && errno != EINTR) return;
    if (waited[1].revents != 0) return;
    signalfd_siginfo information{};
    while (read(signals_, &information, sizeof information) == sizeof information) {
      if (!deadline) deadline = steady_clock::now() + kLongestShutdown;
      queue->post(handler);
    }
  }
}

}  // namespace kestrune
