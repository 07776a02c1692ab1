#include "support/XServerFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace kestrune::testing {
namespace {

std::vector<std::string> split(const std::string& command) {
  std::istringstream words(command);
  std::vector<std::string> result;
  for (std::string word; words >> word;) result.push_back(word);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  for (auto& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

std::string commandLine(XServer::Kind kind, int width, int height, const std::filesystem::path& folder) {
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  switch (kind) {
    case XServer::Kind::xvfb:
      return "Xvfb -displayfd 3 -nolisten tcp -noreset -screen 0 " + size + "x24";
    case XServer::Kind::xvnc:
      return "Xvnc -displayfd 3 -nolisten tcp -noreset -SecurityTypes None -rfbport -1 -depth 24 -geometry " +
             size;
    case XServer::Kind::dummy:
      return "Xorg -displayfd 3 -nolisten tcp -noreset -config " + (folder / "xorg.conf").string() +
             " -logfile " + (folder / "log").string();
  }
  return {};
}

void writeDummyConfiguration(const std::filesystem::path& file, int width, int height) {
  std::ofstream(file) << R"(Section "Device"
  Identifier "card"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5-1000
  VertRefresh 5-200
EndSection
Section "Screen"
  Identifier "screen"
  Device "card"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual )" << width
                      << " " << height << R"(
  EndSubSection
EndSection
)";
}

/// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void becomeServer(char* const* arguments, int numberPipe, int logFile, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  dup2(logFile, STDOUT_FILENO);
  dup2(logFile, STDERR_FILENO);
  if (numberPipe == 3) {
    fcntl(3, F_SETFD, 0);
  } else {
    dup2(numberPipe, 3);
  }
  execvp(arguments[0], arguments);
  _exit(127);
}

std::string readNumber(int pipe) {
  std::string number;
  pollfd descriptor{pipe, POLLIN, 0};
  while (poll(&descriptor, 1, 20'000) > 0) {
    char digit = 0;
    if (read(pipe, &digit, 1) != 1 || digit == '\n') break;
    number.push_back(digit);
  }
  return number;
}

}  // namespace

XServer::XServer(int width, int height, Kind kind) {
  std::string pattern = (std::filesystem::temp_directory_path() / "xserver-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  folder_ = pattern;
  if (kind == Kind::dummy) writeDummyConfiguration(folder_ / "xorg.conf", width, height);

  auto words = split(commandLine(kind, width, height, folder_));
  const auto arguments = pointers(words);
  std::array<int, 2> numberPipe{};
  if (pipe2(numberPipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const int logFile = open((folder_ / "output").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  const pid_t parent = getpid();
  process_ = fork();
  if (process_ == 0) becomeServer(arguments.data(), numberPipe[1], logFile, parent);
  close(numberPipe[1]);
  close(logFile);
  const std::string number = readNumber(numberPipe[0]);
  close(numberPipe[0]);
  if (number.empty()) {
    std::stringstream output;
    output << words.front() << " did not start: " << std::ifstream(folder_ / "output").rdbuf();
    kill();
    std::filesystem::remove_all(folder_);
    throw std::runtime_error(output.str());
  }
  displayName_ = ":" + number;
}

XServer::~XServer() {
  kill();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void XServer::hang() const {
  ::kill(process_, SIGSTOP);
}

void XServer::kill() {
  if (process_ <= 0) return;
  // A terminated server removes its socket and its lock file; one that hangs is not waited for.
  ::kill(process_, SIGTERM);
  ::kill(process_, SIGCONT);
  int status = 0;
  for (int tries = 0; waitpid(process_, &status, WNOHANG) == 0; ++tries) {
    if (tries == 200) ::kill(process_, SIGKILL);
    poll(nullptr, 0, 10);
  }
  process_ = -1;
}

int XServer::run(const std::string& command) const {
  auto words = split("env DISPLAY=" + displayName_ + " " + command);
  const auto arguments = pointers(words);
  pid_t child = -1;
  if (posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) return 127;
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace kestrune::testing
