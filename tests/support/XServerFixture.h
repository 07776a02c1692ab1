#pragma once

#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::testing {

/// A private X server for one test. It takes a free display number by itself, listens on no network, and ends
/// with this object, or with the test process however that dies.
class XServer {
 public:
  enum class Kind {
    xvfb,   // fast, without mode switching
    xvnc,   // RandR with mode switching
    dummy,  // Xorg with the dummy driver: RandR with outputs and modes
  };

  /// `options` are those of the server's command line, such as "-extension RANDR" for a server without it.
  /// Throws std::runtime_error, with the server's own words, if it does not come up.
  explicit XServer(int width = 1280, int height = 720, Kind kind = Kind::xvfb,
                   const std::string& options = {});
  ~XServer() { kill(); }

  /// Such as ":1".
  const std::string& displayName() const { return displayName_; }
  /// Ends the server: its clients lose their connection. Idempotent.
  void kill() { server_->terminate(); }
  /// Starts another server under the same name.
  void restart();
  /// Leaves the server without a word until it goes on or is killed: its clients keep their connection.
  void hang() const { server_->signal(SIGSTOP); }
  void goOn() const { server_->signal(SIGCONT); }
  /// Runs a command of the shell with DISPLAY set and waits for it; its exit status.
  int run(const std::string& command) const;

 private:
  /// Starts the server on this display, such as ":1", or on a free one, and waits for it.
  void start(const std::string& display);

  const TemporaryDirectory folder_;
  std::string command_;
  std::unique_ptr<ChildProcess> server_;
  std::string displayName_;
};

}  // namespace kestrune::testing
