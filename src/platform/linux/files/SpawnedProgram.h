#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kestrune::linux_platform {

/// The descriptor that a program finds what is handed to it on.
inline constexpr int kHandedDescriptor = 3;

/// How a program is started. No shell reads any of it.
struct ProgramStart {
  std::filesystem::path executable;
  std::vector<std::string> arguments;  // behind the first, which is the executable
  std::vector<std::string> environment;
  std::filesystem::path directory;  // to run in; empty: that of this program
  bool hasOwnSession = false;       // setsid(); else a process group of its own
  bool keepsStandardError = false;  // else it reads and writes nothing
  int handed = -1;                  // becomes kHandedDescriptor
};

/// Starts it with no other descriptor of this program, no blocked signal and every signal's default. The
/// caller waits for its end. Throws std::system_error.
pid_t spawnProgram(ProgramStart start);

}  // namespace kestrune::linux_platform
