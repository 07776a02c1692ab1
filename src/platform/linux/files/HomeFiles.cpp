#include "platform/linux/files/HomeFiles.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "platform/linux/files/PrivateDirectory.h"
#include "platform/linux/files/SystemFailure.h"
#include "platform/linux/files/UserDirectories.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

}  // namespace

std::string HomeFiles::applicationSupportDirectory() const {
  try {
    return dataHome().string();
  } catch (const std::runtime_error& failure) {
    throw SystemFailure(failure.what());
  }
}

void HomeFiles::createDirectory(const std::string& path) {
  const auto fail = [&](const std::error_code& code) {
    throw SystemFailure("The directory " + path + " could not be made: " + code.message());
  };
  try {
    makePrivateDirectories(path);
  } catch (const std::system_error& failure) {
    fail(failure.code());
  }
  std::error_code failure;
  const bool isThere = fs::is_directory(path, failure);
  if (failure) fail(failure);
  if (!isThere) fail(std::make_error_code(std::errc::not_a_directory));
}

bool HomeFiles::fileExists(const std::string& path) const {
  std::error_code failure;
  return fs::exists(path, failure);
}

std::optional<std::vector<std::string>> HomeFiles::visibleNames(const std::string& directory) const {
  std::error_code failure;
  std::vector<std::string> names;
  for (fs::directory_iterator each(directory, failure); !failure && each != fs::end(each);
       each.increment(failure)) {
    auto name = each->path().filename().string();
    if (!name.starts_with('.')) names.push_back(std::move(name));
  }
  if (failure) return std::nullopt;
  return names;
}

}  // namespace kestrune::linux_platform
