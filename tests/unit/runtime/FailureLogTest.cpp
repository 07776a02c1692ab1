#include <gmock/gmock.h>

#include "runtime/FailureLog.h"
#include "support/CapturedLog.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

TEST(FailureLogTest, AFailureIsLoggedOnceThenCountedAndNewAgainAfterItsEnd) {
  const CapturedLog captured;
  const auto time = ManualTime::make();
  {
    FailureLog log(Logger("Encoder"), time);
    for (int second = 0; second < 35; ++second) {
      log.failed("no encoder");
      log.succeeded();  // in between is no end
      if (second == 12) log.failed("something else");
      time->advance(1s);
    }
    time->advance(5s);
    log.succeeded();
    log.failed("no encoder");
    log.failed("no encoder");
  }
  EXPECT_THAT(
      captured.lines(),
      testing::ElementsAre("error [Encoder] no encoder", "error [Encoder] no encoder (10 more times)",
                           "error [Encoder] something else", "error [Encoder] no encoder (20 more times)",
                           "notice [Encoder] Over after 35 times: no encoder", "error [Encoder] no encoder",
                           "error [Encoder] no encoder (1 more time)"));
}

}  // namespace
}  // namespace kestrune
