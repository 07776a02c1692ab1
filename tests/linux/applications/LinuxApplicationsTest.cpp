#include <gtest/gtest.h>
#include <sys/stat.h>

#include "linux/applications/ApplicationTools.h"
#include "platform/linux/applications/LinuxApplications.h"
#include "runtime/Error.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::eventually;

constexpr std::string_view kChrome = "com.google.Chrome";

class LinuxApplicationsTest : public ::testing::Test {
 protected:
  /// A browser that is a script of the shell, and its path.
  fs::path install(const std::string& name, const std::string& script) {
    const fs::path file = top_.path() / "bin" / name;
    writeText(file, "#!/bin/sh\n" + script);
    fs::permissions(file, fs::perms::owner_all);
    return file;
  }
  std::shared_ptr<RunningApplication> start(const std::string& script,
                                            const std::vector<std::string>& arguments = {}) {
    install("google-chrome", script);
    return testing::open(applications_, applications_.find(kChrome).value(), arguments);
  }
  /// What a script has written, once the line is whole.
  std::string lineIn(const std::string& file) const {
    const auto path = top_.path() / file;
    eventually([&] { return readText(path).ends_with('\n'); });
    const std::string text = readText(path);
    return text.substr(0, text.find('\n'));
  }
  ProcessID numberIn(const std::string& file) const { return std::stoi("0" + lineIn(file)); }
  static bool runs(ProcessID process) {
    const auto status = readProcessStatus(process);
    return status && !status->hasEnded;  // who reaps it is not ours to say
  }
  std::string in(const std::string& file) const { return (top_.path() / file).string(); }

  const TemporaryDirectory top_;
  std::vector<std::pair<char, ProcessID>> told_;
  LinuxApplications applications_{[](DisplayID) {
                                    return std::vector<std::string>{"DISPLAY=:7", "REMOVED"};
                                  },
                                  {[this](ProcessID id) { told_.emplace_back('a', id); },
                                   [this](ProcessID id) { told_.emplace_back('u', id); }},
                                  {{top_.path() / "share"}, {top_.path() / "bin"}}};
};

TEST_F(LinuxApplicationsTest, FindsChromeBeforeChromiumAndEntriesBeforeThePath) {
  const auto found = [&] { return applications_.find(kChrome).value_or(Application{}).path; };
  EXPECT_FALSE(applications_.find("com.example.Other"));
  EXPECT_EQ(found(), "");
  const auto chromium = install("chromium", "");
  EXPECT_EQ(found(), chromium);
  const fs::path entry = top_.path() / "share/applications/google-chrome.desktop";
  const std::string own = install("my \"chrome\"", "");
  writeText(entry,
            "[Desktop Entry]\nExec=env A=b \"" + top_.path().string() + "/bin/my \\\\\"chrome\\\\\"\" %U\n");
  EXPECT_EQ(found(), own);
  writeText(entry, "[Desktop Entry]\nExec=flatpak run com.google.Chrome %U\n");
  EXPECT_EQ(found(), chromium);
  const auto chrome = install("google-chrome-stable", "");
  EXPECT_EQ(found(), chrome);
  fs::permissions(chrome, fs::perms::owner_read);
  EXPECT_EQ(found(), chromium);
}

TEST_F(LinuxApplicationsTest, StartsItApartFromThisProgram) {
  setenv("REMOVED", "1", 1);
  setenv("WAYLAND_DISPLAY", "wayland-0", 1);
  ASSERT_EQ(dup2(STDERR_FILENO, 33), 33);  // a descriptor that a new program would have
  const auto opened =
      start("for each in 3 4 5 6 7 33; do test -e /proc/$$/fd/$each && open=$open$each; done; exec 8>" +
                in("seen") +
                "; readlink /proc/$$/fd/2 | tr '\\n' ' ' >&8; "
                "grep -cE 'Sig(Blk|Ign).*0000000$' /proc/$$/status | tr '\\n' ' ' >&8; "
                "echo \"$open $DISPLAY$REMOVED$WAYLAND_DISPLAY $1|$2|$# $$ "
                "$(cut -d' ' -f6 /proc/$$/stat)\" >&8\n",
            {"a b", "$HOME;`id`"});
  close(33);
  const std::string process = std::to_string(opened->processIdentifier());
  EXPECT_EQ(lineIn("seen"), "/dev/null 2  :7 a b|$HOME;`id`|2 " + process + " " + process);
  EXPECT_TRUE(eventually([&] { return opened->isTerminated(); }));
  EXPECT_FALSE(readProcessStatus(opened->processIdentifier())) << "a zombie is left";
}

TEST_F(LinuxApplicationsTest, SaysWhyItCannotStart) {
  const auto chrome = install("google-chrome", "");
  const auto application = applications_.find(kChrome).value();
  fs::remove(chrome);
  try {
    testing::open(applications_, application);
    FAIL();
  } catch (const Error& failure) {
    EXPECT_EQ(failure.localizedDescription(),
              chrome.string() + " could not be started: No such file or directory");
  }
}

TEST_F(LinuxApplicationsTest, FollowsAHandOver) {
  const auto opened =
      start("(sleep 60 & echo $! > " + in("later") + "; exec sleep 60) & echo $! > " + in("next"));
  ASSERT_TRUE(eventually([&] { return opened->processIdentifier() == numberIn("next"); }));
  EXPECT_GT(numberIn("later"), 0);
  EXPECT_FALSE(opened->isTerminated());
  EXPECT_EQ(applications_.running(numberIn("next"), kChrome), opened);
  opened->activate();
  opened->unhide();
  const ProcessID next = numberIn("next");
  EXPECT_EQ(told_, (decltype(told_){{'a', next}, {'u', next}}));
  // The end is asked of each that takes over.
  opened->terminate();
  EXPECT_TRUE(eventually([&] { return opened->isTerminated(); }));
  EXPECT_FALSE(runs(numberIn("later")));
}

TEST_F(LinuxApplicationsTest, EndsWhatDoesNotWantToEnd) {
  const auto opened = start("trap '' TERM; sleep 60 & echo $! > " + in("child") +
                            "; setsid sleep 60 & echo $! > " + in("apart") + "; wait; wait\n");
  const ProcessID child = numberIn("child");
  ASSERT_GT(numberIn("apart"), 0);
  opened->terminate();
  EXPECT_TRUE(runs(child) && !opened->isTerminated());
  opened->forceTerminate();
  EXPECT_TRUE(eventually([&] { return opened->isTerminated(); }));
  EXPECT_FALSE(runs(child) || runs(numberIn("apart")));
  opened->terminate();
  opened->forceTerminate();
}

TEST_F(LinuxApplicationsTest, AdoptsTheBrowserAlone) {
  const auto program = top_.path() / "bin/chromium";
  fs::create_directories(program.parent_path());
  fs::copy_file("/bin/sh", program);
  ASSERT_EQ(mkfifo(in("never").c_str(), 0600), 0);
  ChildProcess browser(program.string() + " -c 'sleep 60 & echo $! > " + in("child") + "; wait'");
  ChildProcess renderer(program.string() + " -c 'read line < " + in("never") + "' --type=renderer");
  const ProcessID child = numberIn("child");
  ASSERT_GT(child, 0);
  std::vector<ProcessStatus> running;
  ASSERT_TRUE(eventually([&] {
    running = allProcesses();
    std::error_code failure;
    std::erase_if(running, [&](const ProcessStatus& each) {
      return fs::read_symlink("/proc/" + std::to_string(each.id) + "/exe", failure) != program;
    });
    return running.size() == 2;
  }));
  const auto first = applications_.running(running[0].id, kChrome);
  const auto second = applications_.running(running[1].id, kChrome);
  ASSERT_NE(first == nullptr, second == nullptr);
  EXPECT_EQ(applications_.running(getpid(), kChrome), nullptr);
  const auto adopted = first ? first : second;
  EXPECT_EQ(applications_.running(adopted->processIdentifier(), kChrome), adopted);
  // An update replaces the program under a browser that runs.
  fs::remove(program);
  install("chromium", "");
  adopted->terminate();
  EXPECT_EQ(browser.exitCode(), 128 + SIGTERM);
  EXPECT_TRUE(eventually([&] { return adopted->isTerminated(); }));
  EXPECT_FALSE(runs(child)) << "what it had started runs on";
}

}  // namespace
}  // namespace kestrune::linux_platform
