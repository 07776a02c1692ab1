#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::testing {

/// A private PulseAudio server for one test, with one null sink ("first") that nothing else plays into. It
/// listens on a socket in a private folder, keeps nothing, and ends with this object, or with the test
/// process however that dies.
class SoundServer {
 public:
  /// Throws std::runtime_error, with the server's own words, if it does not come up.
  SoundServer() { start(); }
  ~SoundServer() { end(); }

  /// As PULSE_SERVER takes it; the same after a restart.
  std::string address() const { return "unix:" + (folder() / "native").string(); }
  /// Starts the server anew after an end().
  void start();
  /// Ends the server: its clients lose their connection. Idempotent.
  void end() { server_->terminate(); }
  /// The server accepts connections, as its system does that for it, and then says nothing; and the end of
  /// that.
  void freeze() const { server_->signal(SIGSTOP); }
  void thaw() const { server_->signal(SIGCONT); }
  /// Runs pactl with these arguments; its exit status.
  int control(const std::string& arguments) const;
  /// Plays raw stereo 32-bit floats at 48 kHz into a sink, from a file, until it is over or another begins.
  void play(const std::string& sink, const std::filesystem::path& file);
  const std::filesystem::path& folder() const { return folder_.path(); }

 private:
  /// Starts a program that writes into the folder only.
  std::unique_ptr<ChildProcess> launch(const std::string& command) const;

  const TemporaryDirectory folder_;
  std::unique_ptr<ChildProcess> server_;
  std::unique_ptr<ChildProcess> player_;
};

}  // namespace kestrune::testing
