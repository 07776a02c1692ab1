#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "runtime/SerialQueue.h"

namespace kestrune::linux_platform {

/// Tells when a file has been written and closed, or put in its place under its name, as editors do. It is
/// the directory that is watched, which must exist at first; should it be removed or moved, the watch begins
/// anew within kRetryDelay of the time when there is one of its name again, and takes the file for changed.
class FileWatch {
 public:
  static constexpr std::chrono::seconds kRetryDelay{1};

  /// `onChange` is called on the reactor's queue, for every change, one's own included. Throws
  /// std::system_error.
  FileWatch(std::shared_ptr<Reactor> reactor, const std::filesystem::path& directory, std::string name,
            std::function<void()> onChange);
  /// Waits for a call of `onChange` to return, unless on the reactor's queue.
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

 private:
  void takeEvents();
  /// Whether the directory is watched now; else errno says why.
  bool watchDirectory();
  void watchDirectoryAgain();

  const std::shared_ptr<Reactor> reactor_;
  const std::filesystem::path directory_;
  const std::string name_;
  const std::function<void()> onChange_;
  const UniqueDescriptor events_;

  // On the reactor's queue, but for construction:
  int directoryWatch_ = -1;  // as inotify counts them
  DelayedWork retry_;
  DescriptorWatch watch_;
};

}  // namespace kestrune::linux_platform
