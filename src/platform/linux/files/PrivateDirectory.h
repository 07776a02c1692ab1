#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// A directory that only this user may enter (mode 0700), and files in it that only this user may read (mode
/// 0600). Links are not followed, neither at the directory nor in it. Names are single path components.
/// Failures are std::system_error.
class PrivateDirectory {
 public:
  /// Makes the directory, and what is missing above it. Takes rights away from others if they have any.
  explicit PrivateDirectory(const std::filesystem::path& path);

  /// The whole file; nothing if there is none. EFBIG above `maximumBytes`, EINVAL if it is no regular file,
  /// EPERM if it is another user's, ELOOP for a link.
  std::optional<Bytes> read(const std::string& name, std::size_t maximumBytes) const;
  /// Replaces the file in one step: after a crash at any moment it holds the old or the new content. Durable
  /// on return. One writer at a time: hold the lock where there may be others.
  void write(const std::string& name, ByteView bytes) const;
  /// Renames the file to `name` + `suffix`, with a number behind it if that exists, and returns the new name.
  std::string setAside(const std::string& name, const std::string& suffix) const;
  /// Waits for the directory's exclusive lock among processes; held until the descriptor is closed.
  UniqueDescriptor lock() const;

 private:
  UniqueDescriptor directory_;
};

}  // namespace kestrune::linux_platform
