#include "CoordinatorFixture.h"
#include "coordination/ApplicationDelegate.h"

namespace kestrune {
namespace {

using Reply = ApplicationDelegate::TerminationReply;
using Status = NetworkPathMonitor::Status;

/// The test keeps `handler` to report through it.
struct FakePathMonitor final : NetworkPathMonitor {
  explicit FakePathMonitor(std::function<void(Status)>& handler_) : handler(handler_) {}
  void start(std::shared_ptr<SerialQueue>, std::function<void(Status)> given) override {
    handler = std::move(given);
  }
  std::function<void(Status)>& handler;
};

struct FakeWakeNotifications final : WakeNotifications {
  void start(std::shared_ptr<SerialQueue>, std::function<void()> given) override { wake = std::move(given); }
  std::function<void()> wake;
};

class ApplicationDelegateTest : public CoordinatorTest {
 protected:
  void attach() {
    delegate = std::make_shared<ApplicationDelegate>(
        mainQueue,
        [this] {
          ++terminations;
          lastReply = delegate->applicationShouldTerminate();
        },
        ApplicationDelegate::Recovery{wakes, std::make_shared<FakePathMonitor>(report), mainQueue,
                                      [this] { ++recoveries; }});
    delegate->attachCoordinator(coordinator);
  }

  std::shared_ptr<ApplicationDelegate> delegate;
  const std::shared_ptr<FakeWakeNotifications> wakes = std::make_shared<FakeWakeNotifications>();
  std::function<void(Status)> report;
  std::optional<Reply> lastReply;
  int terminations = 0;
  int recoveries = 0;
};

TEST_F(ApplicationDelegateTest, TheFirstOfSeveralRequestsShutsDownAndThenEndsTheProcess) {
  streamToViewer();
  attach();
  EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::terminateCancel);
  EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::terminateCancel);
  EXPECT_EQ(terminations, 0);
  time->runReady();
  EXPECT_EQ(terminations, 1);
  EXPECT_EQ(lastReply, Reply::terminateNow);
  EXPECT_FALSE(network->isListening());
  EXPECT_EQ(screen->latest()->calls.back(), "stop");
}

TEST_F(ApplicationDelegateTest, AWakeAndANetworkThatComesBackAreRecoveries) {
  make();
  attach();
  for (const auto& [status, expected] : {std::pair{Status::satisfied, 0},
                                         {Status::satisfied, 0},
                                         {Status::unsatisfied, 0},
                                         {Status::satisfied, 1},
                                         {Status::requiresConnection, 1},
                                         {Status::satisfied, 2},
                                         {Status::satisfied, 2}}) {
    report(status);
    time->runReady();
    EXPECT_EQ(recoveries, expected);
  }
  wakes->wake();
  EXPECT_EQ(recoveries, 3);
  coordinator.reset();
  wakes->wake();
  EXPECT_EQ(recoveries, 3);
}

}  // namespace
}  // namespace kestrune
