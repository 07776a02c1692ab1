#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <xcb/screensaver.h>

#include "PowerServices.h"
#include "platform/linux/desktop/SystemActivities.h"
#include "platform/linux/x11/X11Connection.h"
#include "support/CapturedLog.h"
#include "support/ChildProcess.h"
#include "support/MessageBusFixture.h"
#include "support/TemporaryDirectory.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using testing::eventually;
using testing::PowerServices;
using Manner = PowerServices::Manner;

constexpr ActivityOptions kBoth = kActivityUserInitiated | kActivityIdleDisplaySleepDisabled;
constexpr const char* kNoBus = "unix:path=/no/such/bus";
constexpr const char* kNoDisplay = ":no";

SystemActivities::Settings patient(const std::string& bus, const std::string& display = kNoDisplay) {
  return {.systemBus = bus, .sessionBus = bus, .displayName = display};
}
SystemActivities::Settings impatient(const std::string& bus, const std::string& display = kNoDisplay) {
  auto settings = patient(bus, display);
  settings.answerTimeout = 100ms;
  settings.retryDelay = 50ms;
  return settings;
}

bool areHeld(const PowerServices& services, int idle, int saver) {
  return eventually([&] { return services.isHeld(idle, saver); });
}

class SystemActivitiesTest : public ::testing::Test {
 protected:
  bool isLogged(std::string_view text) const {
    return eventually([&] { return log_.mentions(text); });
  }

  CapturedLog log_;
  const TemporaryDirectory top_;
  const testing::MessageBus bus_{top_.path()};
};

TEST_F(SystemActivitiesTest, BothAreHeldExactlyWhileAnActivityAndTheObjectLast) {
  PowerServices services(bus_.address());
  auto activities = std::make_unique<SystemActivities>(patient(bus_.address()));
  auto first = activities->beginActivity(kBoth, "the reason");
  ASSERT_TRUE(areHeld(services, 1, 1));
  EXPECT_THAT(services.counts().idleArguments, ElementsAre("idle", "Kestrune", "the reason", "block"));
  EXPECT_THAT(services.counts().saverArguments, ElementsAre("Kestrune", "the reason"));

  auto second = activities->beginActivity(kActivityUserInitiated, "only the machine");
  first.reset();
  ASSERT_TRUE(areHeld(services, 1, 0));
  EXPECT_EQ(services.counts().uninhibited, 1);
  EXPECT_EQ(services.counts().idleRequests, 1);
  second.reset();
  ASSERT_TRUE(areHeld(services, 0, 0));

  // However fast they follow each other, the last one counts.
  for (int times = 0; times < 300; ++times) first = activities->beginActivity(kBoth, "again");
  ASSERT_TRUE(areHeld(services, 1, 1));
  for (int times = 0; times < 300; ++times) activities->beginActivity(kBoth, "and again").reset();
  ASSERT_TRUE(areHeld(services, 1, 1));
  activities.reset();  // an activity that outlives it holds nothing
  ASSERT_TRUE(areHeld(services, 0, 0));
}

TEST_F(SystemActivitiesTest, AServiceThatSaysNothingCostsNoWaitAndIsAskedAgain) {
  PowerServices services(bus_.address(), Manner::isSilent);
  SystemActivities activities(impatient(bus_.address()));
  const auto start = std::chrono::steady_clock::now();
  auto activity = activities.beginActivity(kBoth, "x");
  activity.reset();
  activity = activities.beginActivity(kBoth, "x");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 50ms);
  const std::string failure = "notice [App] Idle system sleep cannot be held off: ";
  ASSERT_TRUE(isLogged(failure + "org.freedesktop.login1 does not answer"));
  services.setManner(Manner::refuses);
  ASSERT_TRUE(isLogged(failure + "Not for you"));
  services.setManner(Manner::answers);
  ASSERT_TRUE(areHeld(services, 1, 1));
  activity.reset();
  ASSERT_TRUE(areHeld(services, 0, 0));

  // What is granted too late is not left behind.
  services.setManner(Manner::answersLate);
  activity = activities.beginActivity(kBoth, "x");
  const int before = services.counts().saverRequests;
  ASSERT_TRUE(eventually([&] { return services.counts().saverRequests >= before + 2; }));
  activity.reset();
  ASSERT_TRUE(areHeld(services, 0, 0));
}

TEST_F(SystemActivitiesTest, ABusThatAcceptsAndSaysNothingIsGivenUp) {
  const std::string path = (top_.path() / "silent").string();
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 8), 0);
  {
    SystemActivities activities(impatient("unix:path=" + path));
    const auto activity = activities.beginActivity(kBoth, "x");
    ASSERT_TRUE(isLogged("org.freedesktop.login1 does not answer"));
  }
  auto activities = std::make_unique<SystemActivities>(patient("unix:path=" + path));
  const auto activity = activities->beginActivity(kBoth, "x");
  pollfd arrival{listener.get(), POLLIN, 0};
  ASSERT_EQ(poll(&arrival, 1, 10'000), 1);
  const auto start = std::chrono::steady_clock::now();
  activities.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(SystemActivitiesTest, AServiceThatRestartsIsAskedAgainAtOnce) {
  const testing::XServer server;
  SystemActivities activities(patient(bus_.address(), server.displayName()));
  const auto activity = activities.beginActivity(kBoth, "x");
  const auto isHeldBy = [&](const std::string& holder, int times) {
    const std::string line = "info [App] Idle display sleep is held off by the " + holder;
    return eventually([&] { return std::ranges::count(log_.lines(), line) == times; });
  };
  for (int round = 1; round <= 2; ++round) {
    ASSERT_TRUE(isHeldBy("X server", round));
    PowerServices services(bus_.address());
    ASSERT_TRUE(areHeld(services, 1, 1));
    ASSERT_TRUE(isHeldBy("screen saver service", round));
  }
}

TEST_F(SystemActivitiesTest, WithoutAServiceTheXServersScreenSaverIsSuspended) {
  const testing::XServer server;
  ASSERT_EQ(server.run("xset s 1 s blank"), 0);
  const auto connection = X11Connection::open(server.displayName());
  ASSERT_TRUE(connection->extension(xcb_screensaver_id));
  const auto isSaverOn = [&] {
    const auto info = waitForReply(*connection, xcb_screensaver_query_info_reply,
                                   xcb_screensaver_query_info(*connection, connection->root()));
    return info && info->state == XCB_SCREENSAVER_STATE_ON;
  };
  {
    SystemActivities activities(impatient(kNoBus, server.displayName()));
    const auto activity = activities.beginActivity(kBoth, "x");
    ASSERT_TRUE(isLogged("held off by the X server"));
    xcb_force_screen_saver(*connection, XCB_SCREEN_SAVER_RESET);
    xcb_flush(*connection);
    poll(nullptr, 0, 2500);
    EXPECT_FALSE(isSaverOn());
  }
  EXPECT_TRUE(eventually(isSaverOn));
}

TEST_F(SystemActivitiesTest, WhereNothingIsThereTheLogSaysSoOnce) {
  SystemActivities activities(impatient(kNoBus));
  const auto activity = activities.beginActivity(kBoth, "x");
  ASSERT_TRUE(eventually([&] { return log_.lines().size() == 2; }));
  poll(nullptr, 0, 200);  // several tries
  EXPECT_THAT(
      log_.lines(),
      ElementsAre("notice [App] Idle system sleep cannot be held off: org.freedesktop.login1 cannot be "
                  "reached: No such file or directory",
                  "notice [App] Idle display sleep cannot be held off: org.freedesktop.ScreenSaver cannot be "
                  "reached: No such file or directory; \":no\" is not the name of an X display."));
}

}  // namespace
}  // namespace kestrune::linux_platform
