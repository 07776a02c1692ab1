#include <gmock/gmock.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "linux/network/LoopbackPeer.h"
#include "support/ChildProcess.h"
#include "support/DescriptorLimit.h"
#include "support/TemporaryDirectory.h"
#include "support/WebSocketPeer.h"
#include "support/XServerFixture.h"

namespace kestrune {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

/// The program with a home of its own.
class Program {
 public:
  Program(const std::string& display, const std::filesystem::path& home, int port,
          const std::string& argument = "")
      : process_("env -i PATH=/usr/bin:/bin HOME=" + home.string() + " XDG_RUNTIME_DIR=" + home.string() +
                 " XDG_CONFIG_HOME=" + (home / "config").string() +
                 " XDG_DATA_HOME=" + (home / "data").string() + " KESTRUNE_PORT=" + std::to_string(port) +
                 " DISPLAY=" + display + " " KESTRUNE_HEADLESS " " + argument + " >" + output_.string()) {}

  testing::ChildProcess* operator->() { return &process_; }

  /// The lines since the last call up to the first that begins with `start`, or all there are.
  std::vector<std::string> linesUpTo(const std::string& start) {
    std::vector<std::string> lines;
    testing::eventually([&] {
      const bool isLast = process_.hasEnded();
      const auto text = readText(output_);
      for (auto end = text.find('\n', taken_); end != std::string::npos; end = text.find('\n', taken_)) {
        lines.push_back(text.substr(taken_, end - taken_));
        taken_ = end + 1;
        if (!start.empty() && lines.back().starts_with(start)) return true;
      }
      return isLast;
    });
    return lines;
  }
  std::string lastLineUpTo(const std::string& start) {
    const auto lines = linesUpTo(start);
    return lines.empty() ? "" : lines.back();
  }
  /// Its end, for a reason that its only line begins with.
  void expectEnd(const std::string& line, int exitCode) {
    EXPECT_THAT(linesUpTo({}), ElementsAre(StartsWith(line)));
    EXPECT_EQ(process_.exitCode(), exitCode);
  }

 private:
  const TemporaryDirectory folder_;
  const std::filesystem::path output_ = folder_.path() / "output";
  std::size_t taken_ = 0;
  testing::ChildProcess process_;
};

class HeadlessTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;
  testing::XServer screen{640, 480};
  const std::uint16_t port = LoopbackPeer::freePort();
  const std::string display = screen.displayName();

  LoopbackPeer startStream(const std::string& token) const {
    LoopbackPeer viewer(port);
    viewer.send(kUpgradeRequest);
    EXPECT_THAT(viewer.receiveTo("\r\n\r\n"), StartsWith("HTTP/1.1 101"));
    viewer.send(textFrame(authMessage(token)));
    viewer.send(textFrame(R"({"type":"codecFallback"})"));
    viewer.send(textFrame(R"({"type":"startStream"})"));
    return viewer;
  }
};

TEST_F(HeadlessTest, StreamsToAViewerAndEndsInTwoStepsAtASignal) {
  Program program(display, home.path(), port);
  const auto lines = program.linesUpTo("Local viewer: ");
  ASSERT_THAT(lines, ElementsAre("Phase: Source Selected", "Phase: Starting", "Phase: Remote Ready",
                                 MatchesRegex("Local viewer: http://127\\.0\\.0\\.1:[0-9]+#[A-Za-z0-9_-]+")));
  const std::string token = lines.back().substr(lines.back().find('#') + 1);
  EXPECT_EQ(token.size(), 43u);
  const auto preferences = home.path() / "config/kestrune/preferences.json";
  EXPECT_TRUE(testing::eventually([&] { return exists(preferences); }));
  EXPECT_EQ(modeOf(preferences), 0600u);

  const LoopbackPeer health(port);
  health.send("GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_THAT(health.receive(10'000), HasSubstr("200 OK"));

  const auto viewer = startStream(token);
  EXPECT_THAT(program.linesUpTo("Phase: Streaming"), ElementsAre("Phase: Starting", "Phase: Streaming"));
  // An H.264 keyframe begins with its sequence parameter set.
  const std::string start("\x00\x00\x00\x01\x67", 5);
  EXPECT_THAT(viewer.receiveTo(start), HasSubstr(start));

  program->signal(SIGTERM);
  program->signal(SIGINT);  // refused: the shutdown is under way
  EXPECT_EQ(program->exitCode(), 0);
  EXPECT_FALSE(LoopbackPeer().connectTo(port));

  // The same token at the next start.
  Program again(display, home.path(), port);
  EXPECT_THAT(again.lastLineUpTo("Local viewer: "), HasSubstr(token));
  const auto laterViewer = startStream(token);
  EXPECT_EQ(again.lastLineUpTo("Phase: Streaming"), "Phase: Streaming");
  // A display that answers nothing any more ends the stream, and nothing else.
  screen.hang();
  EXPECT_THAT(laterViewer.receiveTo("Screen capture stopped on the Mac."), HasSubstr(R"("error")"));
  EXPECT_THAT(again.lastLineUpTo("Error: "), HasSubstr(display + " has stopped answering."));
  screen.goOn();
  laterViewer.send(textFrame(R"({"type":"startStream"})"));
  EXPECT_THAT(again.lastLineUpTo("Phase: Streaming"), "Phase: Streaming");
  // Nor can it keep the program.
  screen.hang();
  usleep(500'000);  // several times a second it is asked for the pointer
  again->signal(SIGHUP);
  EXPECT_EQ(again->exitCode(), 0);
  Program early(display, home.path(), port);
  early.expectEnd("Error: No display could be opened.", 1);
}

TEST_F(HeadlessTest, AHangUpThatWasIgnoredAtTheStartStaysIgnoredButNotAnInterrupt) {
  const auto hangUp = std::signal(SIGHUP, SIG_IGN);
  const auto interrupt = std::signal(SIGINT, SIG_IGN);
  Program program(display, home.path(), port);
  std::signal(SIGHUP, hangUp);
  std::signal(SIGINT, interrupt);
  const std::string address = program.lastLineUpTo("Local viewer: ");
  program->signal(SIGHUP);
  const auto viewer = startStream(address.substr(address.find('#') + 1));
  EXPECT_THAT(program.linesUpTo("Phase: Streaming"), ElementsAre("Phase: Starting", "Phase: Streaming"));
  program->signal(SIGINT);
  EXPECT_EQ(program->exitCode(), 0);
}

TEST_F(HeadlessTest, SaysWhyItCannotStart) {
  {
    Program first(display, home.path(), port);
    ASSERT_THAT(first.lastLineUpTo("Local viewer: "), StartsWith("Local viewer: "));
    Program second(display, home.path(), port);
    second.expectEnd("Error: Port " + std::to_string(port) + " on 127.0.0.1 is already in use", 1);
  }
  Program(":999", home.path(), port).expectEnd("Error: No display could be opened.", 1);
  Program(display, home.path(), port, "--port=1").expectEnd("Error: Unknown argument: --port=1", 2);
}

TEST_F(HeadlessTest, TheSmokeTestSelectsNoDisplay) {
  const DescriptorLimit low(DescriptorLimit::leaving(100));
  Program program(display, home.path(), port, "--browser-display-smoke-test");
  EXPECT_THAT(program.linesUpTo("Local viewer: "), ElementsAre(StartsWith("Local viewer: ")));
  const rlimit limit = program->limit(RLIMIT_NOFILE);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
  program->signal(SIGTERM);
  EXPECT_EQ(program->exitCode(), 0);
}

TEST_F(HeadlessTest, WelcomesWithoutStoringWhatIsForOneRun) {
  Program program(display, home.path(), port, "--virtual-display --welcome");
  ASSERT_THAT(program.lastLineUpTo("Local viewer: "), StartsWith("Local viewer: "));
  const auto answerTo = [&](const std::string& request) {
    const LoopbackPeer visitor(static_cast<std::uint16_t>(port + 1));
    visitor.send(request + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    return visitor.receive(100'000);
  };
  EXPECT_THAT(answerTo("GET /"), HasSubstr("Welcome to Kestrune"));
  EXPECT_THAT(answerTo("GET /touch.js"), HasSubstr("text/javascript"));
  EXPECT_THAT(answerTo("GET /../Viewer/app.js"), HasSubstr("404"));
  program->signal(SIGTERM);
  EXPECT_EQ(program->exitCode(), 0);
  const auto stored = readText(home.path() / "config/kestrune/preferences.json");
  EXPECT_THAT(stored, Not(AnyOf(HasSubstr("127.0.0.1"), HasSubstr("virtualDisplay"))));
}

}  // namespace
}  // namespace kestrune
