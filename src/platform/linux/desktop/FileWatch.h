#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/reactor/DescriptorWatch.h"

namespace kestrune::linux_platform {

/// Tells when a file has been written and closed, or put in its place under its name, as editors do. It is
/// the directory that is watched, which must exist; should it be removed or moved, the watch ends.
class FileWatch {
 public:
  /// `onChange` is called on the reactor's queue, for every change, one's own included. Throws
  /// std::system_error.
  FileWatch(std::shared_ptr<Reactor> reactor, const std::filesystem::path& directory, std::string name,
            std::function<void()> onChange);
  /// Waits for a call of `onChange` to return, unless on the reactor's queue.
  ~FileWatch() = default;
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

 private:
  void takeEvents();

  const std::string name_;
  const std::function<void()> onChange_;
  const UniqueDescriptor events_;
  DescriptorWatch watch_;
};

}  // namespace kestrune::linux_platform
