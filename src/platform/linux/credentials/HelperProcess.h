#pragma once

#include <sys/types.h>

#include <filesystem>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// The descriptor on which the helper finds its socket.
inline constexpr int kHelperSocket = 3;

/// One run of the credential helper, with one end of a socket pair in its hands. It inherits no other
/// descriptor but standard error, no arguments, and of the environment only what it needs.
class HelperProcess {
 public:
  /// Throws std::system_error if it cannot be started.
  explicit HelperProcess(const std::filesystem::path& executable);
  HelperProcess(const HelperProcess&) = delete;
  /// Closes the socket, upon which the helper ends, and waits for that.
  ~HelperProcess();

  int socket() const { return socket_.get(); }
  /// Makes a pending receive on the socket end.
  void hangUp() const;

 private:
  UniqueDescriptor socket_;
  pid_t pid_ = -1;
};

}  // namespace kestrune::linux_platform
