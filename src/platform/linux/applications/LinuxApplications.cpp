#include "platform/linux/applications/LinuxApplications.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>
#include <utility>

#include "platform/linux/applications/ProcessDescriptor.h"
#include "platform/linux/files/SpawnedProgram.h"
#include "platform/linux/files/SystemFailure.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kChrome = "com.google.Chrome";

std::string nameOf(const std::string& variable) {
  return variable.substr(0, variable.find('='));
}

/// This program's environment with what differs on the display.
std::vector<std::string> environmentWith(const std::vector<std::string>& different) {
  std::vector<std::string> environment;
  for (char** each = environ; *each != nullptr; ++each) environment.emplace_back(*each);
  const auto remove = [&](const std::string& name) {
    std::erase_if(environment, [&](const std::string& each) { return nameOf(each) == name; });
  };
  // The displays are those of X servers; and what started this program waits for this program, not for
  // another.
  for (const auto* name :
       {"WAYLAND_DISPLAY", "WAYLAND_SOCKET", "DESKTOP_STARTUP_ID", "XDG_ACTIVATION_TOKEN"}) {
    remove(name);
  }
  // Without it, Chrome looks for a Wayland desktop under its usual name.
  remove("XDG_SESSION_TYPE");
  environment.emplace_back("XDG_SESSION_TYPE=x11");
  for (const std::string& each : different) {
    remove(nameOf(each));
    if (each.find('=') != std::string::npos) environment.push_back(each);
  }
  return environment;
}

/// Whether it is the process that a browser's windows belong to, and this user's: the others of the browser
/// name their type.
bool isBrowser(ProcessID process, const fs::path& installed) {
  const fs::path folder = "/proc/" + std::to_string(process);
  struct stat owner {};
  if (stat(folder.c_str(), &owner) != 0 || owner.st_uid != geteuid()) return false;
  std::error_code failure;
  if (!isProgramOf(fs::read_symlink(folder / "exe", failure), installed) || failure) return false;
  std::ifstream file(folder / "cmdline", std::ios::binary);
  const std::string commandLine{std::istreambuf_iterator<char>(file), {}};
  // Arguments stand between zeros; a browser that has rewritten its own has blanks there.
  return commandLine.find(std::string_view("\0--type=", 8)) == std::string::npos &&
         commandLine.find(" --type=") == std::string::npos;
}

}  // namespace

/// The applications that run, kept until they have ended: then they are reaped. Any thread.
class LinuxApplications::Register : public std::enable_shared_from_this<Register> {
 public:
  std::shared_ptr<FollowedApplication> find(ProcessID process) const {
    const std::lock_guard guard(lock_);
    const auto found = std::find_if(all_.begin(), all_.end(), [&](const auto& each) {
      return !each->isTerminated() && each->processIdentifier() == process;
    });
    return found == all_.end() ? nullptr : *found;
  }
  void follow(const std::shared_ptr<FollowedApplication>& application) {
    {
      const std::lock_guard guard(lock_);
      all_.push_back(application);
    }
    application->follow([weak = weak_from_this()](const FollowedApplication& ended) {
      if (const auto self = weak.lock()) self->remove(ended);
    });
  }
  void clear() {
    const auto dropped = [this] {
      const std::lock_guard guard(lock_);
      return std::exchange(all_, {});
    }();
  }

 private:
  void remove(const FollowedApplication& ended) {
    const std::lock_guard guard(lock_);
    std::erase_if(all_, [&](const auto& each) { return each.get() == &ended; });
  }

  mutable std::mutex lock_;  // guards all_
  std::vector<std::shared_ptr<FollowedApplication>> all_;
};

LinuxApplications::LinuxApplications(Environment environmentOf, WindowActions windows, BrowserPlaces places)
    : environmentOf_(std::move(environmentOf)),
      windows_(std::move(windows)),
      places_(std::move(places)),
      register_(std::make_shared<Register>()),
      thread_("applications") {}

LinuxApplications::~LinuxApplications() {
  thread_.reactor()->post([all = register_] { all->clear(); });
}

std::optional<Application> LinuxApplications::find(std::string_view bundleIdentifier) const {
  if (bundleIdentifier != kChrome) return std::nullopt;
  const auto program = findChrome(places_);
  if (!program) return std::nullopt;
  return Application{std::string(bundleIdentifier), program->string()};
}

void LinuxApplications::open(const Application& application, const LaunchConfiguration& configuration,
                             OpenCompletion completion) {
  ProgramStart start;
  start.executable = application.path;
  start.arguments = configuration.arguments;
  start.environment = environmentWith(environmentOf_(configuration.display));
  start.directory = "/";  // no file system is kept in use by it
  start.hasOwnSession = true;
  thread_.reactor()->post([start = std::move(start), windows = windows_, reactor = thread_.reactor(),
                           all = register_, completion = std::move(completion)] {
    std::shared_ptr<FollowedApplication> opened;
    std::exception_ptr failure;
    try {
      const pid_t process = spawnProgram(start);
      // A child that is not reaped yet keeps its number.
      UniqueDescriptor descriptor = openProcess(process);
      const int error = errno;
      const auto status = readProcessStatus(process);
      if (!status || !descriptor) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        throw std::system_error(error, std::generic_category());
      }
      opened = std::make_shared<FollowedApplication>(reactor, windows, std::move(descriptor), *status, true);
      all->follow(opened);
    } catch (const std::system_error& error) {
      failure = std::make_exception_ptr(
          SystemFailure(start.executable.string() + " could not be started: " + error.code().message()));
    }
    completion(std::move(opened), failure);
  });
}

std::shared_ptr<RunningApplication> LinuxApplications::running(ProcessID process,
                                                               std::string_view bundleIdentifier) {
  const auto application = find(bundleIdentifier);
  if (!application || process <= 0) return nullptr;
  if (auto followed = register_->find(process)) return followed;
  // In this order: what is read is of the process that the descriptor means, if that still runs at the end.
  const auto status = readProcessStatus(process);
  if (!status || status->hasEnded || !isBrowser(process, application->path)) return nullptr;
  UniqueDescriptor descriptor = openProcess(*status);
  if (!descriptor) return nullptr;
  const auto adopted = std::make_shared<FollowedApplication>(thread_.reactor(), windows_,
                                                             std::move(descriptor), *status, false);
  register_->follow(adopted);
  return adopted;
}

}  // namespace kestrune::linux_platform
