#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace kestrune::testing {

/// Asks until `isTrue` or ten seconds have passed.
inline bool eventually(const std::function<bool()>& isTrue) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!isTrue()) {
    if (std::chrono::steady_clock::now() > end) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

/// A program that ends with this object, or with the test process however that dies.
class ChildProcess {
 public:
  /// One simple command of the shell.
  explicit ChildProcess(const std::string& command) {
    const std::string script = "exec " + command;
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
    _exit(127);
  }
  ~ChildProcess() {
    if (hasEnded()) return;
    signal(SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void signal(int number) const {
    if (!exitCode_) kill(process_, number);
  }
  rlimit limit(__rlimit_resource resource) const {
    rlimit value{};
    prlimit(process_, resource, nullptr, &value);
    return value;
  }
  bool hasEnded() {
    int status = 0;
    if (!exitCode_ && waitpid(process_, &status, WNOHANG) == process_) {
      exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return exitCode_.has_value();
  }
  /// Waits for the end: the exit status, or 128 and the signal; nothing if it does not come.
  std::optional<int> exitCode() {
    eventually([this] { return hasEnded(); });
    return exitCode_;
  }
  /// Lets the program tidy up.
  void terminate() {
    if (hasEnded()) return;
    signal(SIGTERM);
    signal(SIGCONT);
    exitCode();
  }

 private:
  pid_t process_ = -1;
  std::optional<int> exitCode_;
};

}  // namespace kestrune::testing
