#include "support/XServerFixture.h"

namespace kestrune::testing {
namespace {

std::string commandLine(XServer::Kind kind, int width, int height, const std::filesystem::path& folder) {
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  switch (kind) {
    case XServer::Kind::xvfb:
      return "Xvfb -screen 0 " + size + "x24";
    case XServer::Kind::xvnc:
      return "Xvnc -SecurityTypes None -rfbport -1 -depth 24 -geometry " + size;
    case XServer::Kind::dummy:
      return "Xorg -config " + (folder / "xorg.conf").string() + " -logfile " + (folder / "log").string();
  }
  return {};
}

std::string dummyConfiguration(int width, int height) {
  return R"(Section "Device"
  Identifier "card"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5-1000
  VertRefresh 5-200
EndSection
Section "Screen"
  Identifier "screen"
  Device "card"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual )" +
         std::to_string(width) + " " + std::to_string(height) + R"(
  EndSubSection
EndSection
)";
}

}  // namespace

XServer::XServer(int width, int height, Kind kind, const std::string& options) {
  const auto folder = folder_.path();
  if (kind == Kind::dummy) writeText(folder / "xorg.conf", dummyConfiguration(width, height));
  command_ = commandLine(kind, width, height, folder) + " " + options;
  start("");
}

void XServer::start(const std::string& display) {
  const auto number = folder_.path() / "number";
  const auto output = folder_.path() / "output";
  writeText(number, "");
  server_ =
      std::make_unique<ChildProcess>(command_ + " " + display + " -displayfd 3 -nolisten tcp -noreset 3>" +
                                     number.string() + " >" + output.string() + " 2>&1");
  eventually([&] { return readText(number).ends_with('\n') || server_->hasEnded(); });
  displayName_ = ":" + readText(number);
  if (!displayName_.ends_with('\n')) throw std::runtime_error("No X server: " + readText(output));
  displayName_.pop_back();
}

void XServer::restart() {
  kill();
  start(std::string(displayName_));
}

int XServer::run(const std::string& command) const {
  return ChildProcess("env DISPLAY=" + displayName_ + " " + command).exitCode().value_or(127);
}

}  // namespace kestrune::testing
