#include "platform/linux/files/UserDirectories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <vector>

namespace kestrune::linux_platform {
namespace {

std::optional<std::filesystem::path> absolutePath(const char* variable) {
  const char* value = std::getenv(variable);
  if (!value || value[0] != '/') return {};
  return value;
}

std::filesystem::path home() {
  if (auto path = absolutePath("HOME")) return *path;
  std::vector<char> buffer(16'384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir &&
      found->pw_dir[0] == '/') {
    return found->pw_dir;
  }
  throw std::runtime_error("The user has no home directory");
}

}  // namespace

std::filesystem::path configHome() {
  if (auto path = absolutePath("XDG_CONFIG_HOME")) return *path;
  return home() / ".config";
}

std::filesystem::path dataHome() {
  if (auto path = absolutePath("XDG_DATA_HOME")) return *path;
  return home() / ".local/share";
}

std::filesystem::path runningExecutable() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace kestrune::linux_platform
