#include "TerminationSignals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/linux/reactor/Reactor.h"
#include "runtime/Log.h"

namespace kestrune {
using namespace linux_platform;

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

}  // namespace

void TerminationSignals::block() {
  const sigset_t set = terminationSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

TerminationSignals::TerminationSignals(std::shared_ptr<Reactor> reactor, std::shared_ptr<SerialQueue> queue,
                                       std::function<void()> handler)
    : reactor_(std::move(reactor)), queue_(std::move(queue)), handler_(std::move(handler)), signals_([] {
        const sigset_t set = terminationSignals();
        const int descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signals");
        return descriptor;
      }()) {
  watch_ = DescriptorWatch(reactor_, signals_.get(), Readiness::readable, [this] { takeSignals(); });
}

TerminationSignals::~TerminationSignals() {
  watch_.cancel();
  forcedExit_.cancel();
}

void TerminationSignals::takeSignals() {
  signalfd_siginfo information{};
  while (read(signals_.get(), &information, sizeof information) == sizeof information) {
    queue_->post(handler_);
    if (forcedExit_.isPending()) continue;
    forcedExit_ = reactor_->postAfter(kLongestShutdown, [] {
      kLog.error("The shutdown does not come to its end; the program ends without it");
      _exit(kForcedExit);
    });
  }
}

}  // namespace kestrune
