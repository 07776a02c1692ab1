#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kestrune {

/// Files of the user that services look for. Any thread; calls touch the disk.
class UserFiles {
 public:
  virtual ~UserFiles() = default;

  /// Where applications keep data of the user, an absolute path. Throws an Error if there is no such place.
  virtual std::string applicationSupportDirectory() const = 0;
  /// Makes a directory for this user alone, with those above it; one that is there stays as it is. Throws an
  /// Error with the system's words.
  virtual void createDirectory(const std::string& path) = 0;
  virtual bool fileExists(const std::string& path) const = 0;
  /// The names in a directory but the hidden ones; nothing if it cannot be listed.
  virtual std::optional<std::vector<std::string>> visibleNames(const std::string& directory) const = 0;
};

}  // namespace kestrune
