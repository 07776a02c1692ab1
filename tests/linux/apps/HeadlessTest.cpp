#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "support/WebSocketPeer.h"
#include "support/XServerFixture.h"

extern char** environ;

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr std::chrono::seconds kPatience{20};

/// Reads what is there, waiting for it until `deadline`; false at the end or when time is up.
bool readMore(int descriptor, std::string& into, std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd waited{descriptor, POLLIN, 0};
  if (left.count() <= 0 || poll(&waited, 1, static_cast<int>(left.count())) <= 0) return false;
  char buffer[65536];
  const ssize_t count = read(descriptor, buffer, sizeof buffer);
  if (count > 0) into.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

std::chrono::steady_clock::time_point soon() {
  return std::chrono::steady_clock::now() + kPatience;
}

/// The program in a process of its own, with a home of its own.
class Program {
 public:
  Program(const std::string& display, const std::filesystem::path& home, int port,
          std::vector<std::string> arguments = {}) {
    std::vector<std::string> environment{"HOME=" + home.string(),
                                         "PATH=/usr/bin:/bin",
                                         "XDG_CONFIG_HOME=" + (home / "config").string(),
                                         "XDG_DATA_HOME=" + (home / "data").string(),
                                         "XDG_RUNTIME_DIR=" + home.string(),
                                         "KESTRUNE_PORT=" + std::to_string(port),
                                         "DISPLAY=" + display};
    arguments.insert(arguments.begin(), KESTRUNE_HEADLESS);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    output_ = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const int failure = posix_spawn(&process_, KESTRUNE_HEADLESS, &actions, nullptr,
                                    pointers(arguments).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failure != 0) throw std::runtime_error("the program could not be started");
  }
  ~Program() {
    if (process_ > 0) {
      signal(SIGKILL);
      waitpid(process_, nullptr, 0);
    }
    close(output_);
  }
  Program(const Program&) = delete;

  void signal(int number) const { kill(process_, number); }

  /// The lines up to the first that begins with `start`, or all there are.
  std::vector<std::string> linesUpTo(const std::string& start) {
    std::vector<std::string> lines;
    const auto deadline = soon();
    for (;;) {
      for (auto end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
        lines.push_back(text_.substr(0, end));
        text_.erase(0, end + 1);
        if (!start.empty() && lines.back().starts_with(start)) return lines;
      }
      if (!readMore(output_, text_, deadline)) return lines;
    }
  }
  std::vector<std::string> restOfLines() { return linesUpTo({}); }

  /// The exit status, or nothing if it does not end by itself.
  std::optional<int> exitCode() {
    const auto deadline = soon();
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      if (waitpid(process_, &status, WNOHANG) == process_) {
        process_ = -1;
        return WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
      }
      usleep(5000);
    }
    return std::nullopt;
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& words) {
    std::vector<char*> result;
    for (auto& word : words) result.push_back(word.data());
    result.push_back(nullptr);
    return result;
  }

  pid_t process_ = -1;
  int output_ = -1;
  std::string text_;
};

/// A TCP socket of the loopback address.
class Socket {
 public:
  Socket() : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() { close(descriptor_); }
  Socket(const Socket&) = delete;

  bool connect(int port) const {
    const sockaddr_in to = address(port);
    return ::connect(descriptor_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }
  void send(const std::string& bytes) const {
    if (write(descriptor_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error("short write");
    }
  }
  /// What comes until it contains `text`, or the peer ends.
  std::string receiveUntil(const std::string& text) const {
    std::string received;
    const auto deadline = soon();
    while ((text.empty() || received.find(text) == std::string::npos) &&
           readMore(descriptor_, received, deadline)) {
    }
    return received;
  }

  /// A port that was free a moment ago.
  static int freePort() {
    const Socket probe;
    sockaddr_in bound = address(0);
    socklen_t size = sizeof bound;
    bind(probe.descriptor_, reinterpret_cast<const sockaddr*>(&bound), sizeof bound);
    getsockname(probe.descriptor_, reinterpret_cast<sockaddr*>(&bound), &size);
    return ntohs(bound.sin_port);
  }

 private:
  static sockaddr_in address(int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
  }

  const int descriptor_;
};

class HeadlessTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;
  testing::XServer screen{640, 480};
  const int port = Socket::freePort();
  const std::string display = screen.displayName();

  void startStream(const Socket& viewer, const std::string& token) const {
    ASSERT_TRUE(viewer.connect(port));
    viewer.send(
        "GET /stream HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    EXPECT_THAT(viewer.receiveUntil("\r\n\r\n"), StartsWith("HTTP/1.1 101"));
    viewer.send(textFrame(R"({"type":"auth","token":")" + token + "\"}"));
    viewer.send(textFrame(R"({"type":"codecFallback"})"));
    viewer.send(textFrame(R"({"type":"startStream"})"));
  }
};

TEST_F(HeadlessTest, StreamsToAViewerAndEndsInTwoStepsAtASignal) {
  Program program(display, home.path(), port);
  const auto lines = program.linesUpTo("Local viewer: ");
  ASSERT_THAT(lines, ElementsAre("Phase: Source Selected", "Phase: Starting", "Phase: Remote Ready",
                                 MatchesRegex("Local viewer: http://127\\.0\\.0\\.1:[0-9]+#[A-Za-z0-9_-]+")));
  const std::string token = lines.back().substr(lines.back().find('#') + 1);
  EXPECT_EQ(token.size(), 43u);
  EXPECT_EQ(modeOf(home.path() / "config/kestrune/preferences.json"), 0600u);

  const Socket health;
  ASSERT_TRUE(health.connect(port));
  health.send("GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_THAT(health.receiveUntil(""), HasSubstr("200 OK"));

  const Socket viewer;
  startStream(viewer, token);
  EXPECT_THAT(program.linesUpTo("Phase: Streaming"), ElementsAre("Phase: Starting", "Phase: Streaming"));
  // An H.264 keyframe begins with its sequence parameter set.
  const std::string start("\x00\x00\x00\x01\x67", 5);
  EXPECT_THAT(viewer.receiveUntil(start), HasSubstr(start));

  program.signal(SIGTERM);
  program.signal(SIGINT);  // refused: the shutdown is under way
  EXPECT_EQ(program.exitCode(), 0);
  viewer.receiveUntil("");  // to the end
  EXPECT_FALSE(Socket().connect(port));

  // The same token at the next start.
  Program again(display, home.path(), port);
  EXPECT_THAT(again.linesUpTo("Local viewer: ").back(), HasSubstr(token));
  const Socket laterViewer;
  startStream(laterViewer, token);
  EXPECT_THAT(again.linesUpTo("Phase: Streaming").back(), "Phase: Streaming");
  // A display that answers nothing any more cannot keep the program.
  screen.hang();
  usleep(500'000);  // several times a second it is asked for the pointer
  again.signal(SIGHUP);
  EXPECT_EQ(again.exitCode(), 1);
}

TEST_F(HeadlessTest, SaysWhyItCannotStart) {
  {
    Program first(display, home.path(), port);
    ASSERT_THAT(first.linesUpTo("Local viewer: ").back(), StartsWith("Local viewer: "));
    Program second(display, home.path(), port);
    const auto lines = second.restOfLines();
    EXPECT_EQ(second.exitCode(), 1);
    EXPECT_THAT(lines, ::testing::Contains("Phase: Failed"));
    EXPECT_THAT(lines.back(),
                StartsWith("Error: Port " + std::to_string(port) + " on 127.0.0.1 is already in use"));
  }
  Program noDisplay(":999", home.path(), port);
  EXPECT_THAT(noDisplay.restOfLines(), ElementsAre(StartsWith("Error: No display could be opened.")));
  EXPECT_EQ(noDisplay.exitCode(), 1);

  Program badArgument(display, home.path(), port, {"--port=1"});
  EXPECT_THAT(badArgument.restOfLines(), ElementsAre("Error: Unknown argument: --port=1"));
  EXPECT_EQ(badArgument.exitCode(), 2);
}

TEST_F(HeadlessTest, TheSmokeTestSelectsNoDisplay) {
  Program program(display, home.path(), port, {"--browser-display-smoke-test"});
  EXPECT_THAT(program.linesUpTo("Local viewer: "), ElementsAre(StartsWith("Local viewer: ")));
  program.signal(SIGTERM);
  EXPECT_EQ(program.exitCode(), 0);
}

}  // namespace
}  // namespace kestrune
