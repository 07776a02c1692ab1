#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kestrune::testing {

/// A private PulseAudio server for one test, with one null sink ("first") that nothing else plays into. It
/// listens on a socket in a private folder, keeps nothing, and ends with this object, or with the test
/// process however that dies.
class SoundServer {
 public:
  /// Throws std::runtime_error, with the server's own words, if it does not come up.
  SoundServer();
  ~SoundServer();
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  /// As PULSE_SERVER takes it; the same after a restart.
  const std::string& address() const { return address_; }
  /// Starts the server anew after an end().
  void start();
  /// Ends the server: its clients lose their connection. Idempotent.
  void end();
  /// The server accepts connections, as its system does that for it, and then says nothing; and the end of
  /// that.
  void freeze() const;
  void thaw() const;
  /// Runs pactl with these arguments; its exit status.
  int control(const std::vector<std::string>& arguments) const;
  /// Plays raw stereo 32-bit floats at 48 kHz into a sink, from a file, until it is over or stopPlaying().
  void play(const std::string& sink, const std::filesystem::path& file);
  void stopPlaying();
  const std::filesystem::path& folder() const { return folder_; }

 private:
  pid_t launch(const std::vector<std::string>& words) const;

  std::filesystem::path folder_;
  std::string address_;
  pid_t server_ = -1;
  pid_t player_ = -1;
};

}  // namespace kestrune::testing
