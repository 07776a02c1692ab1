#include "support/SoundServerFixture.h"

namespace kestrune::testing {

void SoundServer::start() {
  server_ = launch(
      "pulseaudio -n --daemonize=no --use-pid-file=no --exit-idle-time=-1 --log-target=stderr "
      "--load='module-null-sink sink_name=first rate=48000 format=float32le' "
      "--load='module-native-protocol-unix auth-cookie-enabled=0 socket=" +
      (folder() / "native").string() + "'");
  if (eventually([this] { return server_->hasEnded() || control("info") == 0; }) && !server_->hasEnded()) {
    return;
  }
  throw std::runtime_error("pulseaudio did not start: " + readText(folder() / "output"));
}

int SoundServer::control(const std::string& arguments) const {
  return launch("pactl " + arguments)->exitCode().value_or(127);
}

void SoundServer::play(const std::string& sink, const std::filesystem::path& file) {
  player_ = launch("pacat --playback --device=" + sink +
                   " --format=float32le --rate=48000 --channels=2 --raw " + file.string());
}

std::unique_ptr<ChildProcess> SoundServer::launch(const std::string& command) const {
  const auto& home = folder().string();
  return std::make_unique<ChildProcess>("env PULSE_SERVER=" + address() + " PULSE_RUNTIME_PATH=" + home +
                                        " PULSE_STATE_PATH=" + home + " HOME=" + home +
                                        " DBUS_SESSION_BUS_ADDRESS=disabled: " + command + " >>" +
                                        (folder() / "output").string() + " 2>&1");
}

}  // namespace kestrune::testing
