#include "platform/linux/files/ProcessStatus.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kestrune::linux_platform {

std::optional<ProcessStatus> readProcessStatus(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  // The name stands between parentheses, and may hold any character.
  const auto nameEnd = text.rfind(')');
  if (nameEnd == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(nameEnd + 1));
  ProcessStatus status;
  status.id = process;
  char state = 0;
  pid_t group = 0;
  fields >> state >> status.parent >> group >> status.session;
  constexpr int kBetween = 15;  // from tty_nr up to itrealvalue
  std::string ignored;
  for (int index = 0; index < kBetween; ++index) fields >> ignored;
  fields >> status.startTime;
  if (!fields) return std::nullopt;
  status.hasEnded = state == 'Z' || state == 'X';
  return status;
}

std::vector<ProcessStatus> allProcesses() {
  std::vector<ProcessStatus> all;
  std::error_code failure;
  for (std::filesystem::directory_iterator each("/proc", failure);
       !failure && each != std::filesystem::end(each); each.increment(failure)) {
    const std::string name = each->path().filename().string();
    pid_t process = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    if (const auto status = readProcessStatus(process)) all.push_back(*status);
  }
  return all;
}

}  // namespace kestrune::linux_platform
