#include "support/SoundServerFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kestrune::testing {
namespace {

int waitFor(pid_t process) {
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void endProcess(pid_t& process) {
  if (process <= 0) return;
  ::kill(process, SIGCONT);
  ::kill(process, SIGTERM);
  for (int tries = 0; waitpid(process, nullptr, WNOHANG) == 0; ++tries) {
    if (tries == 200) ::kill(process, SIGKILL);
    poll(nullptr, 0, 10);
  }
  process = -1;
}

}  // namespace

SoundServer::SoundServer() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sound-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  folder_ = pattern;
  address_ = "unix:" + (folder_ / "native").string();
  start();
}

SoundServer::~SoundServer() {
  stopPlaying();
  end();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void SoundServer::start() {
  server_ = launch(
      {"pulseaudio", "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1",
       "--log-target=stderr", "--load=module-null-sink sink_name=first rate=48000 format=float32le",
       "--load=module-native-protocol-unix auth-cookie-enabled=0 socket=" + (folder_ / "native").string()});
  for (int tries = 0; tries < 100; ++tries) {
    if (control({"info"}) == 0) return;
    if (waitpid(server_, nullptr, WNOHANG) != 0) break;
    poll(nullptr, 0, 50);
  }
  std::stringstream output;
  output << "pulseaudio did not start: " << std::ifstream(folder_ / "output").rdbuf();
  throw std::runtime_error(output.str());
}

void SoundServer::end() {
  endProcess(server_);
}

void SoundServer::freeze() const {
  ::kill(server_, SIGSTOP);
}

void SoundServer::thaw() const {
  ::kill(server_, SIGCONT);
}

int SoundServer::control(const std::vector<std::string>& arguments) const {
  std::vector<std::string> words{"pactl"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return waitFor(launch(words));
}

void SoundServer::play(const std::string& sink, const std::filesystem::path& file) {
  stopPlaying();
  player_ = launch({"pacat", "--playback", "--device=" + sink, "--format=float32le", "--rate=48000",
                    "--channels=2", "--raw", file.string()});
}

void SoundServer::stopPlaying() {
  endProcess(player_);
}

/// Starts a program that ends with this process and writes into the folder only.
pid_t SoundServer::launch(const std::vector<std::string>& words) const {
  std::vector<std::string> all{"env",
                               "PULSE_SERVER=" + address_,
                               "PULSE_RUNTIME_PATH=" + folder_.string(),
                               "PULSE_STATE_PATH=" + folder_.string(),
                               "HOME=" + folder_.string(),
                               "DBUS_SESSION_BUS_ADDRESS=disabled:"};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char*> arguments;
  for (std::string& word : all) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const std::string log = (folder_ / "output").string();
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  const int output = open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace kestrune::testing
