#include "platform/linux/files/SpawnedProgram.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <system_error>

namespace kestrune::linux_platform {
namespace {

void check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

struct FileActions {
  posix_spawn_file_actions_t value;
  FileActions() { check(posix_spawn_file_actions_init(&value), "posix_spawn_file_actions_init"); }
  ~FileActions() { posix_spawn_file_actions_destroy(&value); }
};

struct Attributes {
  posix_spawnattr_t value;
  Attributes() { check(posix_spawnattr_init(&value), "posix_spawnattr_init"); }
  ~Attributes() { posix_spawnattr_destroy(&value); }
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

pid_t spawnProgram(ProgramStart start) {
  FileActions actions;
  check(posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDWR, 0), "stdin");
  check(posix_spawn_file_actions_adddup2(&actions.value, STDIN_FILENO, STDOUT_FILENO), "stdout");
  if (!start.keepsStandardError) {
    check(posix_spawn_file_actions_adddup2(&actions.value, STDIN_FILENO, STDERR_FILENO), "stderr");
  }
  int firstClosed = STDERR_FILENO + 1;
  if (start.handed >= 0) {
    check(posix_spawn_file_actions_adddup2(&actions.value, start.handed, kHandedDescriptor), "descriptor");
    firstClosed = kHandedDescriptor + 1;
  }
  check(posix_spawn_file_actions_addclosefrom_np(&actions.value, firstClosed), "closefrom");
  if (!start.directory.empty()) {
    check(posix_spawn_file_actions_addchdir_np(&actions.value, start.directory.c_str()), "directory");
  }

  Attributes attributes;
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  check(posix_spawnattr_setsigmask(&attributes.value, &none), "signal mask");
  check(posix_spawnattr_setsigdefault(&attributes.value, &all), "signal defaults");
  check(posix_spawnattr_setpgroup(&attributes.value, 0), "process group");
  // Ctrl-C in the terminal is for this program alone.
  const int apart = start.hasOwnSession ? POSIX_SPAWN_SETSID : POSIX_SPAWN_SETPGROUP;
  const int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | apart;
  check(posix_spawnattr_setflags(&attributes.value, static_cast<short>(flags)), "flags");

  start.arguments.insert(start.arguments.begin(), start.executable.string());
  pid_t process = -1;
  check(posix_spawn(&process, start.executable.c_str(), &actions.value, &attributes.value,
                    pointersTo(start.arguments).data(), pointersTo(start.environment).data()),
        start.executable.c_str());
  return process;
}

}  // namespace kestrune::linux_platform
