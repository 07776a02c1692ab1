#include "platform/linux/virtualdisplay/ServerFiles.h"

#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "platform/linux/files/PrivateDirectory.h"

namespace kestrune::linux_platform {
namespace {

constexpr std::string_view kPrefix = "kestrune-display-";
constexpr std::size_t kKeyBytes = 16;
/// Its owner locks a directory at once; an unlocked one of this age has none.
constexpr std::chrono::seconds kOwnerlessAge{60};

/// No decoration, no menu and no key of its own; a new window gets the keyboard, and a click gives it. Chrome
/// does not maximize itself here, in spite of its arguments, so this does.
constexpr std::string_view kWindowManager = R"(<?xml version="1.0" encoding="UTF-8"?>
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <focus><focusNew>yes</focusNew><followMouse>no</followMouse><raiseOnFocus>yes</raiseOnFocus></focus>
  <placement><policy>Smart</policy><center>yes</center></placement>
  <theme><keepBorder>no</keepBorder><animateIconify>no</animateIconify></theme>
  <desktops><number>1</number><popupTime>0</popupTime></desktops>
  <resize><drawContents>yes</drawContents><popupShow>Never</popupShow></resize>
  <keyboard></keyboard>
  <mouse>
    <context name="Client">
      <mousebind button="Left" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Right" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
    </context>
    <context name="Titlebar">
      <mousebind button="Left" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Left" action="Drag"><action name="Move"/></mousebind>
    </context>
    <context name="Close">
      <mousebind button="Left" action="Click"><action name="Close"/></mousebind>
    </context>
  </mouse>
  <menu></menu>
  <applications>
    <application type="normal"><decor>no</decor><focus>yes</focus></application>
    <application type="normal" class="*hrom*"><maximized>yes</maximized></application>
  </applications>
</openbox_config>
)";

ByteView bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string freshKey() {
  std::string key(kKeyBytes, '\0');
  // So few bytes come at once or not at all.
  while (getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size())) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  return key;
}

/// One entry of an authority file: family, address, display number, method, key; each text behind its length.
std::string authorityEntry(const std::string& key) {
  constexpr std::string_view kAnyFamily = "\xff\xff";  // FamilyWild; an empty number is any number
  std::string entry(kAnyFamily);
  for (const std::string_view text : {std::string_view(), std::string_view(),
                                      std::string_view("MIT-MAGIC-COOKIE-1"), std::string_view(key)}) {
    entry += static_cast<char>(text.size() >> 8);
    entry += static_cast<char>(text.size() & 0xFF);
    entry += text;
  }
  return entry;
}

std::filesystem::path runtimeDirectory() {
  const char* path = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): it never changes
  if (path != nullptr && path[0] == '/' && access(path, W_OK | X_OK) == 0) return path;
  return std::filesystem::temp_directory_path();
}

void removeIfOwnerless(const std::filesystem::path& directory) {
  try {
    const auto age =
        std::filesystem::file_time_type::clock::now() - std::filesystem::last_write_time(directory);
    if (age < kOwnerlessAge) return;
    if (PrivateDirectory(directory).lock(std::chrono::milliseconds::zero())) {
      std::filesystem::remove_all(directory);
    }
  } catch (const std::system_error&) {
    // Another user's, or gone meanwhile.
  }
}

void removeLeftBehind(const std::filesystem::path& parent) {
  std::error_code unreadable;
  for (std::filesystem::directory_iterator entry(parent, unreadable), end; !unreadable && entry != end;
       entry.increment(unreadable)) {
    const std::string name = entry->path().filename().string();
    if (name.starts_with(kPrefix)) removeIfOwnerless(entry->path());
  }
}

}  // namespace

ServerFiles::ServerFiles() : key_(freshKey()) {
  const auto parent = runtimeDirectory();
  removeLeftBehind(parent);
  std::string name = (parent / (std::string(kPrefix) + "XXXXXX")).string();
  if (mkdtemp(name.data()) == nullptr) throw std::system_error(errno, std::generic_category(), name);
  directory_ = name;
  const PrivateDirectory files(directory_);
  lock_ = files.lock(std::chrono::milliseconds::zero());
  files.write(authority().filename().string(), bytesOf(authorityEntry(key_)));
  files.write(windowManager().filename().string(), bytesOf(kWindowManager));
}

ServerFiles::~ServerFiles() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

}  // namespace kestrune::linux_platform
