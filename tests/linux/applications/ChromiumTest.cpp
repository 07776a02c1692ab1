#include <gtest/gtest.h>

#include "browser/BrowserDisplayService.h"
#include "linux/applications/ApplicationTools.h"
#include "platform/linux/files/HomeFiles.h"
#include "platform/linux/files/ProcessStatus.h"
#include "platform/linux/windows/X11Windows.h"
#include "platform/linux/x11/X11Displays.h"
#include "platform/linux/x11/X11PrivacyPermissions.h"
#include "runtime/ThreadQueue.h"
#include "support/FirstOutcome.h"
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
  opened_ = testing::open(applications_, *application_, arguments());
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

/// As a user does with the window's button.
void minimizeFirstWindow(const std::string& displayName) {
  const auto connection = X11Connection::open(displayName);
  const auto atom = [&](std::string_view name) {
    const auto reply =
        waitForReply(*connection, xcb_intern_atom_reply,
                     xcb_intern_atom(*connection, 0, static_cast<std::uint16_t>(name.size()), name.data()));
    return reply->atom;
  };
  const auto list = waitForReply(
      *connection, xcb_get_property_reply,
      xcb_get_property(*connection, 0, connection->root(), atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW, 0, 1));
  ASSERT_EQ(xcb_get_property_value_length(list.get()), 4);
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = *static_cast<const xcb_window_t*>(xcb_get_property_value(list.get()));
  message.type = atom("WM_CHANGE_STATE");
  message.data.data32[0] = 3;  // IconicState (ICCCM §4.1.4)
  xcb_send_event(*connection, 0, connection->root(), XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                 reinterpret_cast<const char*>(&message));
  connection->roundTrip();
}

/// The service of the managed browser on a queue of its own, over the real ports.
class ManagedBrowser {
 public:
  explicit ManagedBrowser(BrowserDisplayService::Dependencies dependencies) {
    dependencies.mainQueue = queue_;
    service_ = std::make_shared<BrowserDisplayService>(std::move(dependencies));
  }

  std::string open(const std::string& page) {
    return outcome([=, this] { return service_->openManagedChromeOnMainDisplay(page); });
  }
  std::string recover(const std::string& page) {
    return outcome([=, this] { return service_->recoverManagedChrome(page); });
  }
  std::string reset(const std::string& page) {
    return outcome([=, this] { return service_->resetManagedChrome(page); });
  }
  std::string terminate() {
    return outcome([this] { return service_->terminateManagedChrome(); });
  }

 private:
  template <class Value>
  static Task<void> finish(Task<Value> task, std::shared_ptr<FirstOutcome<std::string>> text) {
    Task<Value> body = std::move(task);
    std::string failure;
    try {
      co_await body;
    } catch (...) {
      failure = localizedDescription(std::current_exception());
    }
    text->set(failure);
  }
  /// The text of its failure; empty on success.
  template <class Start>
  std::string outcome(Start start) {
    const auto text = std::make_shared<FirstOutcome<std::string>>();
    queue_->post([this, start, text] { startTask(queue_, finish(start(), text)); });
    return text->get();
  }

  const std::shared_ptr<ThreadQueue> queue_ = std::make_shared<ThreadQueue>("main");
  std::shared_ptr<BrowserDisplayService> service_;
};

TEST_F(ChromiumTest, TheServiceBringsItBackRestartsItAndRestoresItsSession) {
  setenv("XDG_DATA_HOME", home_.path().c_str(), 1);
  const auto screen = std::make_shared<X11Server>(server_.displayName());
  BrowserDisplayService::Dependencies ports;
  ports.displays = std::make_shared<X11Displays>(screen);
  ports.permissions = std::make_shared<X11PrivacyPermissions>(screen);
  ports.applications = std::shared_ptr<Applications>(std::shared_ptr<void>(), &applications_);
  ports.windows = windows_;
  ports.files = std::make_shared<HomeFiles>();
  const auto runsWith = [&](const std::string& argument) {
    return eventually([&] {
      for (const auto& each : windows_->onScreenWindows()) {
        if (each.layer != 0) continue;
        const std::string line = readText("/proc/" + std::to_string(each.owner) + "/cmdline");
        return line.find(argument) != std::string::npos;
      }
      return false;
    });
  };
  const auto fillsTheScreen = [&] {
    const auto all = windows_->onScreenWindows();
    return !all.empty() && all.front().bounds.value_or(Rect{}).width == kScreen.width;
  };
  {
    ManagedBrowser browser(ports);
    EXPECT_EQ(browser.open("http://127.0.0.1:9/first"), "");
    EXPECT_TRUE(runsWith("http://127.0.0.1:9/first"));
    minimizeFirstWindow(server_.displayName());
    EXPECT_TRUE(eventually([&] { return windows_->onScreenWindows().empty(); }));
    EXPECT_EQ(browser.recover("http://127.0.0.1:9/second"), "");
    EXPECT_TRUE(eventually(fillsTheScreen));
    EXPECT_TRUE(runsWith("http://127.0.0.1:9/first"));
    EXPECT_EQ(browser.reset("http://127.0.0.1:9/second"), "");
    EXPECT_TRUE(runsWith("http://127.0.0.1:9/second"));
    // It writes its session down a moment after a page was opened.
    EXPECT_TRUE(eventually(
        [&] { return chromeProfileHasSavedSession(*ports.files, chromeProfileDirectory(*ports.files)); }));
    EXPECT_EQ(browser.terminate(), "");
    EXPECT_TRUE(eventually([&] { return countThatUse(home_.path()) == 0; }));
  }
  ManagedBrowser later(ports);
  EXPECT_EQ(later.open("http://127.0.0.1:9/third"), "");
  EXPECT_TRUE(runsWith("--restore-last-session"));
  EXPECT_EQ(later.terminate(), "");
}

}  // namespace
}  // namespace kestrune::linux_platform
