#include <poll.h>
#include <unistd.h>

#include <iostream>

#include "VirtualDisplayLab.h"

/// Holds a virtual display until it is killed, and writes what a program on it needs, a line each.
int main() {
  using namespace kestrune;
  using namespace kestrune::linux_platform;
  const auto space = std::make_shared<DisplaySpace>(portsOf(std::make_shared<X11Server>(X11Address(":no"))));
  XvfbVirtualDisplays displays(space, portsOf);
  const auto display = displays.create(descriptor());
  if (!display->applySettings(settings(640, 480))) return 1;
  while (!space->regionOf(display->displayID())) poll(nullptr, 0, 10);
  for (const auto& line : space->environmentOf(display->displayID())) std::cout << line << '\n';
  std::cout << std::endl;
  for (;;) pause();
}
