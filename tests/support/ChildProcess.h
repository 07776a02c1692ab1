#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

namespace kestrune::testing {

/// A program that ends with this object, or with the test process however that dies.
class ChildProcess {
 public:
  /// One simple command of the shell.
  explicit ChildProcess(const std::string& command) {
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
    _exit(127);
  }
  ~ChildProcess() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

 private:
  pid_t process_ = -1;
};

/// Asks until `isTrue` or ten seconds have passed.
inline bool eventually(const std::function<bool()>& isTrue) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!isTrue()) {
    if (std::chrono::steady_clock::now() > end) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

}  // namespace kestrune::testing
