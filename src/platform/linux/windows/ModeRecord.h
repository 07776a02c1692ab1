#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/DisplayModes.h"

namespace kestrune::linux_platform {

/// What a change of an output's mode has to be undone with.
struct ModeRecord {
  struct Move {
    std::uint32_t controller = 0;
    int fromX = 0;
    int fromY = 0;
    int toX = 0;
    int toY = 0;
  };

  DisplayMode original;
  DisplayMode set;          // in its place
  std::vector<Move> moves;  // of other controllers, that made room
};

/// The records of one X server as files in a private folder, one for each output, so that the next start of
/// the program finds what one that died has left. Each names its writer: a process of this run of the system.
/// Failures of the disk are logged and nothing else. Confined to one thread.
class ModeRecords {
 public:
  ModeRecords(std::filesystem::path folder, std::string displayName);

  void write(const std::string& output, const ModeRecord& record) const;
  void remove(const std::string& output) const;
  /// What a process has left that runs no more. A record from before the last start of the system is removed.
  std::optional<ModeRecord> readAbandoned(const std::string& output) const;
  /// Whether another process that runs keeps a record.
  bool isHeldByOther(const std::string& output) const;

 private:
  struct Written;
  std::optional<Written> read(const std::string& output) const;
  std::string fileName(const std::string& output) const;

  const std::filesystem::path folder_;
  const std::string displayName_;
};

}  // namespace kestrune::linux_platform
