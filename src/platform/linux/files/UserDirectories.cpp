#include "platform/linux/files/UserDirectories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace kestrune::linux_platform {
namespace {

std::optional<std::filesystem::path> absolutePath(const char* variable) {
  const char* value = std::getenv(variable);
  if (!value || value[0] != '/') return {};
  return value;
}

/// The absolute paths between the colons of a variable, or of `otherwise` where it is not set.
void addDirectories(std::vector<std::filesystem::path>& to, const char* variable, const char* otherwise) {
  const char* value = std::getenv(variable);
  std::istringstream list(value && *value ? value : otherwise);
  for (std::string path; std::getline(list, path, ':');) {
    if (path.starts_with('/')) to.emplace_back(path);
  }
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

bool isExecutable(const std::filesystem::path& file) {
  std::error_code failure;
  return std::filesystem::is_regular_file(file, failure) && access(file.c_str(), X_OK) == 0;
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

std::filesystem::path stateHome() {
  if (auto path = absolutePath("XDG_STATE_HOME")) return *path;
  return home() / ".local/state";
}

std::vector<std::filesystem::path> dataDirectories() {
  std::vector<std::filesystem::path> all;
  try {
    all.push_back(dataHome());
  } catch (const std::runtime_error&) {  // a user without a home has the system's
  }
  addDirectories(all, "XDG_DATA_DIRS", "/usr/local/share:/usr/share");
  return all;
}

std::vector<std::filesystem::path> programDirectories() {
  std::vector<std::filesystem::path> all;
  addDirectories(all, "PATH", "/usr/local/bin:/usr/bin:/bin");
  return all;
}

std::optional<std::filesystem::path> findProgram(std::string_view name,
                                                 const std::vector<std::filesystem::path>& directories) {
  if (name.starts_with('/'))
    return isExecutable(name) ? std::optional<std::filesystem::path>(name) : std::nullopt;
  if (name.empty() || name.find('/') != std::string_view::npos) return std::nullopt;
  for (const std::filesystem::path& directory : directories) {
    if (isExecutable(directory / name)) return directory / name;
  }
  return std::nullopt;
}

std::filesystem::path runningExecutable() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace kestrune::linux_platform
