#pragma once

#include <filesystem>
#include <string>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// What a private X server and its window manager read: a directory that only this user may enter, in
/// $XDG_RUNTIME_DIR or, without one, in the directory for temporary files. It goes with this object; one that
/// a killed process has left behind goes when the next is made. Failures are std::system_error.
class ServerFiles {
 public:
  ServerFiles();
  ~ServerFiles();
  ServerFiles(const ServerFiles&) = delete;
  ServerFiles& operator=(const ServerFiles&) = delete;

  const std::filesystem::path& directory() const { return directory_; }
  /// The authority file (libXau's form, any host and display): `key()` lets its holder in, nothing else does.
  std::filesystem::path authority() const { return directory_ / "authority"; }
  /// MIT-MAGIC-COOKIE-1: 16 random bytes. Secret.
  const std::string& key() const { return key_; }
  /// Openbox's configuration for windows of one program that fill the display.
  std::filesystem::path windowManager() const { return directory_ / "openbox.xml"; }

 private:
  std::string key_;
  std::filesystem::path directory_;
  UniqueDescriptor lock_;  // held as long as the directory is in use
};

}  // namespace kestrune::linux_platform
