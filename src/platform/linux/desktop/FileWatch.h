#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// Tells when a file has been written and closed, or put in its place under its name, as editors do. It is
/// the directory that is watched, which must exist; should it be removed or moved, the watch ends.
class FileWatch {
 public:
  /// `onChange` is called on a thread of the watch, for every change, one's own included. Throws
  /// std::system_error.
  FileWatch(const std::filesystem::path& directory, std::string name, std::function<void()> onChange);
  /// Waits for a call of `onChange` to return.
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

 private:
  void run() const;
  /// False when there is nothing to watch any more.
  bool takeEvents() const;

  const std::string name_;
  const std::function<void()> onChange_;
  const UniqueDescriptor events_;
  const UniqueDescriptor end_;
  std::thread thread_;
};

}  // namespace kestrune::linux_platform
