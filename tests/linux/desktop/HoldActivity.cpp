#include <unistd.h>

#include "platform/linux/desktop/SystemActivities.h"

/// usage: HoldActivity BUS-ADDRESS DISPLAY. Keeps the machine awake until it is killed.
int main(int count, char** arguments) {
  using namespace kestrune;
  if (count != 3) return 2;
  linux_platform::SystemActivities activities(
      {.systemBus = arguments[1], .sessionBus = arguments[1], .displayName = arguments[2]});
  const auto held = activities.beginActivity(kActivityUserInitiated | kActivityIdleDisplaySleepDisabled,
                                             "until it is killed");
  for (;;) pause();
}
