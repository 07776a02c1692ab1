#include "platform/linux/credentials/HelperProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

namespace kestrune::linux_platform {
namespace {

// Where items are stored, and how the Secret Service is reached. Nothing that loads code.
constexpr std::array kInherited{
    "HOME", "LANG", "LC_ALL", "XDG_DATA_HOME", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS"};

std::vector<std::string> helperEnvironment() {
  std::vector<std::string> environment;
  for (const char* name : kInherited) {
    if (const char* value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
  }
  return environment;
}

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

}  // namespace

HelperProcess::HelperProcess(const std::filesystem::path& executable) {
  std::array<int, 2> pair{-1, -1};
  check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) == 0 ? 0 : errno, "socketpair");
  socket_.reset(pair[0]);
  const UniqueDescriptor other(pair[1]);

  FileActions actions;
  check(posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDWR, 0), "stdin");
  check(posix_spawn_file_actions_adddup2(&actions.value, STDIN_FILENO, STDOUT_FILENO), "stdout");
  check(posix_spawn_file_actions_adddup2(&actions.value, other.get(), kHelperSocket), "socket");
  check(posix_spawn_file_actions_addclosefrom_np(&actions.value, kHelperSocket + 1), "closefrom");

  Attributes attributes;
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  check(posix_spawnattr_setsigmask(&attributes.value, &none), "signal mask");
  check(posix_spawnattr_setsigdefault(&attributes.value, &all), "signal defaults");
  // A process group of its own: Ctrl-C in the terminal is for the program; a call under way is finished.
  check(posix_spawnattr_setpgroup(&attributes.value, 0), "process group");
  check(posix_spawnattr_setflags(&attributes.value,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP),
        "flags");

  std::vector<std::string> environment = helperEnvironment();
  std::vector<char*> environmentPointers;
  environmentPointers.reserve(environment.size() + 1);
  for (auto& entry : environment) environmentPointers.push_back(entry.data());
  environmentPointers.push_back(nullptr);
  std::string name = executable.filename().string();
  std::array<char*, 2> arguments{name.data(), nullptr};
  check(posix_spawn(&pid_, executable.c_str(), &actions.value, &attributes.value, arguments.data(),
                    environmentPointers.data()),
        "The credential helper cannot be started");
}

HelperProcess::~HelperProcess() {
  socket_.reset();
  while (pid_ > 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void HelperProcess::hangUp() const {
  shutdown(socket_.get(), SHUT_RDWR);
}

}  // namespace kestrune::linux_platform
