#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "HeadlessApplication.h"
#include "RunPreferences.h"
#include "TerminationSignals.h"
#include "model/PreferenceKeys.h"
#include "model/StreamSettings.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/reactor/ReactorThread.h"
#include "runtime/Log.h"
#include "server/WelcomeServer.h"

namespace {

using namespace kestrune;

constexpr int kStartFailed = 1;
constexpr int kUsageError = 2;

struct Options {
  bool isSmokeTest = false;
  bool showsVirtualDisplay = false;  // in this run, over the preferences
  bool opensWelcome = false;         // as the start page of this run
  std::uint16_t port = 8080;
};

/// Nothing, after an error line, if the program was not started properly.
std::optional<Options> readOptions(int argumentCount, char** arguments) {
  Options options;
  for (int index = 1; index < argumentCount; ++index) {
    const std::string_view argument = arguments[index];
    if (argument == "--browser-display-smoke-test") {
      options.isSmokeTest = true;
    } else if (argument == "--virtual-display") {
      options.showsVirtualDisplay = true;
    } else if (argument == "--welcome") {
      options.opensWelcome = true;
    } else {
      printLine("Error", "Unknown argument: " + std::string(argument));
      return std::nullopt;
    }
  }
  // For tests, several of which run side by side.
  if (const char* text = std::getenv("KESTRUNE_PORT"); text && *text != '\0') {
    const std::string_view port = text;
    const auto [end, failure] = std::from_chars(port.data(), port.data() + port.size(), options.port);
    if (failure != std::errc() || end != port.data() + port.size() || options.port == 0) {
      printLine("Error", "KESTRUNE_PORT is not a port number: " + std::string(port));
      return std::nullopt;
    }
  }
  return options;
}

/// Descriptors 0 to 2, if they are closed at start, would become those of the next files and sockets, and get
/// our lines.
void openStandardDescriptors() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) close(descriptor);
}

/// What this process makes is for its user's eyes only, and its memory holds the viewer token.
void restrictProcess() {
  umask(077);
#if !defined(__SANITIZE_ADDRESS__)  // the leak check reads the process from a helper
  prctl(PR_SET_DUMPABLE, 0);
#endif
  std::signal(SIGPIPE, SIG_IGN);
}

/// Each connection takes a descriptor. The soft limit is low for the sake of programs that call select(),
/// which fails beyond descriptor 1023; neither we nor the credential helper do.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// Whether somebody listens there.
bool isPortTaken(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool isTaken = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
                       errno == EADDRINUSE;
  close(descriptor);
  return isTaken;
}

/// The address of the welcome pages; nothing if they cannot be served, which is logged.
std::optional<std::string> startWelcome(WelcomeServer& server, std::uint16_t viewerPort) {
  constexpr auto kPatience = std::chrono::seconds(5);
  const auto address = std::make_shared<std::promise<std::optional<std::string>>>();
  auto started = address->get_future();
  server.start(static_cast<std::uint16_t>(viewerPort + 1),
               [address](std::optional<std::string> value) { address->set_value(std::move(value)); });
  return started.wait_for(kPatience) == std::future_status::ready ? started.get() : std::nullopt;
}

int runProgram(const Options& options) {
  const auto mainQueue = std::make_shared<RunLoopQueue>("main");
  // From the beginning: a display or a keyring that does not answer can hold up the composition, too.
  const auto application = std::make_shared<std::shared_ptr<HeadlessApplication>>();
  // Signals and files; nothing on it waits for another program.
  const linux_platform::ReactorThread watch("watch");
  const TerminationSignals signals(watch.reactor(), mainQueue, [application] {
    if (*application) (*application)->requestTermination();
  });
  // Before anything is read or written: the program that runs there may share our settings.
  if (isPortTaken(options.port)) {
    printLine("Error", "Port " + std::to_string(options.port) +
                           " on 127.0.0.1 is already in use: another Kestrune, or another program, is "
                           "running there. Stop it, then try again.");
    return kStartFailed;
  }
  Platform platform = linux_platform::makeLinuxPlatform(watch.reactor());
  if (!platform.displays->mainDisplay()) {
    printLine(
        "Error",
        "No display could be opened. Set DISPLAY to an X display that this user may use, then try again.");
    return kStartFailed;
  }
  setMainBundle(platform.bundle);
  RunPreferences::Values ofThisRun;
  if (options.showsVirtualDisplay) {
    ofThisRun.emplace(preference_keys::kDisplayMode,
                      std::string(rawValue(StreamDisplayMode::virtualDisplay)));
  }
  const auto welcome = std::make_shared<WelcomeServer>(platform.network, platform.bundle);
  if (options.opensWelcome) {
    if (auto address = startWelcome(*welcome, options.port)) {
      ofThisRun.emplace(preference_keys::kBrowserStartURL, std::move(*address));
    }
  }
  platform.preferences = std::make_shared<RunPreferences>(platform.preferences, std::move(ofThisRun));
  *application = std::make_shared<HeadlessApplication>(
      mainQueue, StreamCoordinator::make(platform, mainQueue, options.port));
  (*application)->launch(!options.isSmokeTest);
  mainQueue->run();
  const int exitCode = (*application)->exitCode();
  application->reset();  // here, where the time for the shutdown still counts
  return exitCode;
}

/// Pictures and encoders come and go with every change of settings. By default the C library moves blocks of
/// their size to the heap as soon as one was freed, where they leave holes: twice the memory after a few
/// changes.
void keepMemoryCompact() {
  constexpr int kLargeBlock = 256 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, 4 * kLargeBlock);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  openStandardDescriptors();
  TerminationSignals::block();
  restrictProcess();
  raiseDescriptorLimit();
  keepMemoryCompact();
  setLogSink(makeStandardErrorSink());
  const auto options = readOptions(argumentCount, arguments);
  if (!options) return kUsageError;
  try {
    return runProgram(*options);
  } catch (...) {
    printLine("Error", localizedDescription(std::current_exception()));
    return kStartFailed;
  }
}
