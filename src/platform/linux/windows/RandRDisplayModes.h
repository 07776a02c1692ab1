#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/DisplayModes.h"
#include "platform/linux/windows/ModeRecord.h"
#include "platform/linux/windows/RandRScreen.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// The modes of an X server's displays over RandR 1.2 and later; a display is its output, as in
/// DisplayLayout. A mode is in points as the display stands: width and height of one that stands on its side
/// are exchanged. Modes that are interlaced or doubled are no modes for a desktop.
///
/// A change moves other displays only where they are in the way, and the way back puts these back too. It is
/// written down before it is made, and undone at construction where the program that made it runs no more and
/// the output still shows what it set. A connection is made for each call.
class RandRDisplayModes final : public DisplayModes {
 public:
  /// `stateFolder` holds the records; made when the first is written.
  RandRDisplayModes(std::shared_ptr<X11Server> server, std::filesystem::path stateFolder);

  std::optional<DisplayMode> currentMode(DisplayID display) const override;
  std::optional<std::vector<DisplayMode>> allModes(DisplayID display) const override;
  /// Waits until X11Server knows the new layout, and a moment for a window manager to tell its work area.
  bool setMode(DisplayID display, const DisplayMode& mode) override;

 private:
  struct Shown;
  using Use = std::function<void(const X11Connection&, const Shown&)>;

  /// Calls `use` if the display can be reached and shows something.
  void withDisplay(DisplayID display, const Use& use) const;
  bool change(const X11Connection& connection, const Shown& shown, const DisplayMode& mode);
  bool giveBack(const X11Connection& connection, const Shown& shown, const ModeRecord& record) const;
  void giveBackAbandoned();
  void waitForLayout(const X11Connection& connection, const RandRScreen& before,
                     const std::vector<std::uint32_t>& workAreas) const;

  const std::shared_ptr<X11Server> server_;
  const ModeRecords records_;
  std::map<std::string, ModeRecord> changed_;  // by the output's name: what this object has set
};

}  // namespace kestrune::linux_platform
