#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// Makes a directory of mode 0700, and what is missing above it in the same way; what is there stays as it
/// is. Throws std::system_error where something cannot be made, but not where it may not be and is perhaps
/// there: whether the directory can be used shows when it is.
void makePrivateDirectories(const std::filesystem::path& path);

/// A directory that only this user may enter (mode 0700), and files in it that only this user may read (mode
/// 0600). Links are not followed, neither at the directory nor in it. Names are single path components.
/// Failures are std::system_error.
class PrivateDirectory {
 public:
  /// Tells one content of a file from another, as far as the file system does; times in nanoseconds.
  struct FileVersion {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t changed = 0;
    friend bool operator==(const FileVersion&, const FileVersion&) = default;
  };

  /// Makes the directory, and what is missing above it. Takes rights away from others if they have any.
  explicit PrivateDirectory(const std::filesystem::path& path);

  /// The whole file; nothing if there is none. EFBIG above `maximumBytes`, EINVAL if it is no regular file,
  /// EPERM if it is another user's, ELOOP for a link.
  std::optional<Bytes> read(const std::string& name, std::size_t maximumBytes) const;
  /// Replaces the file in one step: after a crash at any moment it holds the old or the new content. Durable
  /// on return. One writer at a time: hold the lock where there may be others.
  void write(const std::string& name, ByteView bytes) const;
  /// Nothing if there is no such file.
  std::optional<FileVersion> version(const std::string& name) const;
  /// Writes unless somebody else has changed the file since it had the version `expected`, before or during
  /// the flush to the disk; returns whether it did.
  bool writeUnlessChanged(const std::string& name, ByteView bytes,
                          const std::optional<FileVersion>& expected) const;
  /// Renames the file to `name` + `suffix`, with a number behind it if that exists, and returns the new name.
  std::string setAside(const std::string& name, const std::string& suffix) const;
  /// Waits for the directory's exclusive lock among processes; held until the descriptor is closed.
  UniqueDescriptor lock() const;
  /// The same with a limit, at whose end no descriptor is returned; zero is one try.
  UniqueDescriptor lock(std::chrono::milliseconds limit) const;

 private:
  UniqueDescriptor openForLock() const;

  UniqueDescriptor directory_;
};

}  // namespace kestrune::linux_platform
