#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "coordination/TaskSlot.h"
#include "coordination/ViewerRoutes.h"
#include "model/RemoteControl.h"

namespace kestrune {

/// Tells every route where the pointer is, 15 times a second, while a viewer watches a whole display. Main
/// queue only; owned by a shared_ptr.
class CursorSync final : public std::enable_shared_from_this<CursorSync> {
 public:
  /// `isShown`: a display is captured and a viewer is there. `position` must not wait for the system.
  CursorSync(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const ViewerRoutes> routes,
             std::function<bool()> isShown, std::function<RemoteCursorState()> position);

  /// Says the present state anew, also if it has not changed, and goes on with it while it is shown.
  void refreshCursorSync();
  /// Hides the pointer.
  void stop();

 private:
  static Task<void> run(std::weak_ptr<CursorSync> weak);
  void publishCursor(const RemoteCursorState& state);

  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::shared_ptr<const ViewerRoutes> routes_;
  const std::function<bool()> isShown_;
  const std::function<RemoteCursorState()> position_;
  TaskSlot task_;
  std::optional<RemoteCursorState> lastPublishedCursorState_;
};

}  // namespace kestrune
