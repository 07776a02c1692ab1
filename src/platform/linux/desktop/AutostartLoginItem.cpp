#include "platform/linux/desktop/AutostartLoginItem.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "platform/linux/files/DesktopEntry.h"
#include "platform/linux/files/ReplacedFile.h"
#include "platform/linux/files/SystemFailure.h"
#include "platform/linux/files/UserDirectories.h"

namespace kestrune::linux_platform {
namespace {

std::string currentDesktop() {
  // Nothing in this program changes its environment.
  const char* names = std::getenv("XDG_CURRENT_DESKTOP");  // NOLINT(concurrency-mt-unsafe)
  return names ? names : "";
}

LoginItem::Status statusOf(const DesktopEntry& entry) {
  if (isSwitchedOff(entry, currentDesktop())) return LoginItem::Status::requiresApproval;
  const auto command = entry.find("Exec");
  if (command == entry.end() || command->second.empty()) return LoginItem::Status::notRegistered;
  const auto program = entry.find("TryExec");
  const bool isGone = program != entry.end() && program->second.starts_with('/') &&
                      program->second.find('\\') == std::string::npos &&
                      access(program->second.c_str(), X_OK) != 0;
  return isGone ? LoginItem::Status::notRegistered : LoginItem::Status::enabled;
}

}  // namespace

AutostartLoginItem::AutostartLoginItem()
    : AutostartLoginItem(configHome() / "autostart", runningExecutable()) {}

AutostartLoginItem::AutostartLoginItem(std::filesystem::path directory, std::filesystem::path program)
    : directory_(std::move(directory)),
      file_(directory_ / "kestrune.desktop"),
      program_(std::move(program)) {}

LoginItem::Status AutostartLoginItem::status() const {
  return statusOf(readDesktopEntry(file_));
}

void AutostartLoginItem::registerItem() {
  const std::string command = desktopCommand(program_.native());
  const DesktopEntry present = readDesktopEntry(file_);
  const auto line = present.find("Exec");
  if (line != present.end() && line->second == command && statusOf(present) == Status::enabled) return;

  const std::string text =
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=Kestrune\n"
      "Comment=Keeps this computer reachable from the car\n"
      "TryExec=" +
      desktopString(program_.native()) + "\nExec=" + command + "\nTerminal=false\n";
  try {
    std::filesystem::create_directories(directory_);
    replaceFile(file_, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  } catch (const std::system_error& failure) {
    throw SystemFailure("The entry for the start at login could not be written: " + file_.string() + ": " +
                        failure.code().message());
  }
}

void AutostartLoginItem::unregisterItem() {
  std::error_code failure;
  std::filesystem::remove(file_, failure);
  if (failure) {
    throw SystemFailure("The entry for the start at login could not be removed: " + file_.string() + ": " +
                        failure.message());
  }
}

}  // namespace kestrune::linux_platform
