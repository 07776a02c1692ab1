#include <gtest/gtest.h>

#include "linux/applications/ApplicationTools.h"
#include "platform/linux/files/ProcessStatus.h"
#include "platform/linux/windows/X11Windows.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::ChildProcess;
using testing::eventually;
using testing::XServer;

constexpr Rect kScreen{0, 0, 1440, 900};

/// The processes that name a folder in their arguments.
std::size_t countThatUse(const std::filesystem::path& folder) {
  std::size_t count = 0;
  for (const ProcessStatus& each : allProcesses()) {
    if (readText("/proc/" + std::to_string(each.id) + "/cmdline").find(folder.string()) != std::string::npos)
      ++count;
  }
  return count;
}

/// The browser of this machine on a display of its own, as the program starts it.
class ChromiumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The package's own script drops the flags of the environment.
    const std::filesystem::path program = "/usr/lib/chromium/chromium";
    if (!std::filesystem::exists(program)) GTEST_SKIP() << "Chromium is not installed";
    writeText(script_, "#!/bin/sh\nexec " + program.string() + " $CHROMIUM_FLAGS \"$@\"\n");
    std::filesystem::permissions(script_, std::filesystem::perms::owner_all);
    if (geteuid() == 0) setenv("CHROMIUM_FLAGS", "--no-sandbox", 1);  // its sandbox refuses to run as root
    application_ = applications_.find("com.google.Chrome");
    ASSERT_TRUE(application_);
    ASSERT_TRUE(eventually([&] { return server_.run("xprop -root _NET_WORKAREA | grep -q =") == 0; }));
    opened_ = testing::open(applications_, *application_, arguments());
  }
  void TearDown() override {
    if (!opened_) return;
    opened_->forceTerminate();
    EXPECT_TRUE(eventually([&] { return opened_->isTerminated(); }));
  }
  std::vector<std::string> arguments() const {
    return {"--user-data-dir=" + (home_.path() / "profile").string(),
            "--no-first-run",
            "--no-default-browser-check",
            "--disable-session-crashed-bubble",
            "--disable-gpu",
            "--force-color-profile=srgb",
            "--window-position=0,0",
            "--window-size=1440,900",
            "--start-maximized",
            "about:blank"};
  }
  std::optional<Rect> window() {
    for (const auto& each : windows_->onScreenWindows()) {
      if (each.owner == opened_->processIdentifier() && each.layer == 0) return each.bounds;
    }
    return std::nullopt;
  }

  const TemporaryDirectory home_;
  const std::filesystem::path script_ = home_.path() / "bin/chromium";
  const BrowserPlaces places_{{}, {script_.parent_path()}};
  XServer server_{1440, 900};
  ChildProcess manager_{"env DISPLAY=" + server_.displayName() + " openbox"};
  const std::shared_ptr<X11Windows> windows_ =
      std::make_shared<X11Windows>(std::make_shared<X11Server>(server_.displayName()));
  LinuxApplications applications_{
      [this](DisplayID) {
        return std::vector<std::string>{"DISPLAY=" + server_.displayName(), "HOME=" + home_.path().string(),
                                        "XDG_CONFIG_HOME", "XDG_CACHE_HOME"};
      },
      {[this](ProcessID id) { windows_->activate(id); }, [this](ProcessID id) { windows_->unhide(id); }},
      places_};
  std::optional<Application> application_;
  std::shared_ptr<RunningApplication> opened_;
};

TEST_F(ChromiumTest, IsFoundPlacedAndEndedInItsTime) {
  // A cold start on a busy machine takes its time.
  ASSERT_TRUE(eventually([&] { return window().has_value(); }) ||
              eventually([&] { return window().has_value(); }));
  EXPECT_TRUE(eventually([&] {
    return windows_->placeFirstWindow(opened_->processIdentifier(), {100, 50, 800, 600});
  }));
  EXPECT_TRUE(eventually([&] { return window().value_or(Rect{}).width <= 800; }));
  EXPECT_TRUE(eventually([&] { return windows_->placeFirstWindow(opened_->processIdentifier(), kScreen); }));
  EXPECT_TRUE(eventually([&] { return window().value_or(Rect{}).width == kScreen.width; }));
  opened_->unhide();
  opened_->activate();
  EXPECT_EQ(applications_.running(opened_->processIdentifier(), "com.google.Chrome"), opened_);
  LinuxApplications others([](DisplayID) { return std::vector<std::string>(); }, {}, places_);
  const auto adopted = others.running(opened_->processIdentifier(), "com.google.Chrome");
  EXPECT_TRUE(adopted);
  // A second one on the same profile gives way to the first.
  const auto second = testing::open(applications_, *application_, arguments());
  EXPECT_TRUE(eventually([&] { return second->isTerminated(); }));
  EXPECT_FALSE(opened_->isTerminated());
  const auto begin = std::chrono::steady_clock::now();
  opened_->terminate();
  EXPECT_TRUE(eventually([&] { return opened_->isTerminated() && adopted->isTerminated(); }));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_TRUE(eventually([&] { return countThatUse(home_.path()) == 0; }));
}

}  // namespace
}  // namespace kestrune::linux_platform
