#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// A program that ends with the thread that started it, and so with this process however that dies: the
/// kernel then sends it SIGTERM. It has a process group of its own, no signal is blocked or ignored, and it
/// inherits no descriptor but those given. Confined to the thread of its making.
class OwnedProcess {
 public:
  struct Setup {
    std::vector<std::string> command;      // an absolute path, and the arguments; no shell reads them
    std::vector<std::string> environment;  // NAME=value, all of it
    int errorOutput = -1;                  // becomes standard error; negative: none
    int extra = -1;                        // becomes descriptor kExtraDescriptor; negative: none
  };
  static constexpr int kExtraDescriptor = 3;

  /// Throws a std::system_error if it cannot be started, or executed.
  explicit OwnedProcess(const Setup& setup);
  /// SIGTERM, and SIGKILL if it has not ended after kEndLimit.
  ~OwnedProcess();
  OwnedProcess(const OwnedProcess&) = delete;
  OwnedProcess& operator=(const OwnedProcess&) = delete;

  static constexpr std::chrono::milliseconds kEndLimit{2000};

  /// Becomes readable when it ends.
  int descriptor() const { return descriptor_.get(); }
  /// Waits no longer than `limit`.
  bool hasEnded(std::chrono::milliseconds limit = std::chrono::milliseconds::zero());
  /// "exit status 1" or "signal 11", once it has ended.
  const std::string& outcome() const { return outcome_; }

 private:
  pid_t process_ = -1;
  UniqueDescriptor descriptor_;
  std::string outcome_;  // empty while it runs
};

}  // namespace kestrune::linux_platform
