#include "platform/linux/credentials/HelperProcess.h"

#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include "platform/linux/files/SpawnedProgram.h"

namespace kestrune::linux_platform {
namespace {

static_assert(kHelperSocket == kHandedDescriptor);

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

}  // namespace

HelperProcess::HelperProcess(const std::filesystem::path& executable) {
  std::array<int, 2> pair{-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  socket_.reset(pair[0]);
  const UniqueDescriptor other(pair[1]);
  ProgramStart start;
  start.executable = executable;
  start.environment = helperEnvironment();
  start.keepsStandardError = true;
  start.handed = other.get();
  // In a process group of its own, Ctrl-C in the terminal leaves it alone; a call under way is finished.
  pid_ = spawnProgram(std::move(start));
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
