#include "platform/linux/virtualdisplay/OwnedProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace kestrune::linux_platform {
namespace {

/// Above all that the child puts in order.
constexpr int kLowestSource = 16;

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const auto& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

UniqueDescriptor raised(int descriptor) {
  UniqueDescriptor copy(fcntl(descriptor, F_DUPFD_CLOEXEC, kLowestSource));
  if (!copy) fail(errno, "fcntl");
  return copy;
}

struct ChildPlan {
  pid_t parent;
  char* const* command;
  char* const* environment;
  int nothing;
  int errorOutput;
  int extra;
  int report;  // takes the errno of a failure
};

/// Between fork and exec of a process with threads: only what is safe in a signal handler.
[[noreturn]] void runChild(const ChildPlan& plan) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != plan.parent) _exit(127);
  setpgid(0, 0);
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) sigaction(number, &byDefault, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(plan.nothing, STDIN_FILENO);
  dup2(plan.nothing, STDOUT_FILENO);
  dup2(plan.errorOutput, STDERR_FILENO);
  dup2(plan.extra, OwnedProcess::kExtraDescriptor);
  close_range(OwnedProcess::kExtraDescriptor + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  execve(plan.command[0], plan.command, plan.environment);
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(plan.report, &error, sizeof error);
  _exit(127);
}

/// No handler of this process may run in the child.
pid_t forkWithoutSignals(const ChildPlan& plan) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t process = fork();
  if (process == 0) runChild(plan);
  const int error = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (process < 0) fail(error, "fork");
  return process;
}

}  // namespace

OwnedProcess::OwnedProcess(const Setup& setup) {
  const UniqueDescriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
  std::array<int, 2> ends{};
  if (!nothing || pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno, "/dev/null or a pipe");
  const UniqueDescriptor reported(ends[0]);
  UniqueDescriptor reportEnd(ends[1]);
  const UniqueDescriptor nothingSource = raised(nothing.get());
  const UniqueDescriptor errorSource = raised(setup.errorOutput < 0 ? nothing.get() : setup.errorOutput);
  const UniqueDescriptor extraSource = raised(setup.extra < 0 ? nothing.get() : setup.extra);
  UniqueDescriptor reportSource = raised(reportEnd.get());
  const auto command = pointersTo(setup.command);
  const auto environment = pointersTo(setup.environment);
  process_ = forkWithoutSignals({getpid(), command.data(), environment.data(), nothingSource.get(),
                                 errorSource.get(), extraSource.get(), reportSource.get()});
  reportEnd.reset();
  reportSource.reset();
  int error = 0;
  ssize_t got = 0;
  do got = read(reported.get(), &error, sizeof error);
  while (got < 0 && errno == EINTR);
  if (got == 0) descriptor_.reset(static_cast<int>(syscall(SYS_pidfd_open, process_, 0)));
  if (descriptor_) return;
  if (got == 0) error = errno;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  fail(error, setup.command.front());
}

OwnedProcess::~OwnedProcess() {
  if (hasEnded()) return;
  kill(process_, SIGTERM);
  if (hasEnded(kEndLimit)) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

bool OwnedProcess::hasEnded(std::chrono::milliseconds limit) {
  if (!outcome_.empty()) return true;
  pollfd ended{descriptor_.get(), POLLIN, 0};
  const auto end = std::chrono::steady_clock::now() + limit;
  int count = 0;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    count = poll(&ended, 1, std::max(0, static_cast<int>(left.count())));
  } while (count < 0 && errno == EINTR);
  if (count != 1) return false;
  int status = 0;
  if (waitpid(process_, &status, WNOHANG) != process_) return false;
  outcome_ = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                               : "signal " + std::to_string(WTERMSIG(status));
  return true;
}

}  // namespace kestrune::linux_platform
