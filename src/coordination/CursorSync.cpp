#include "coordination/CursorSync.h"

#include <chrono>

namespace kestrune {
namespace {
constexpr std::chrono::milliseconds kPeriod{67};
}  // namespace

CursorSync::CursorSync(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const ViewerRoutes> routes,
                       std::function<bool()> isShown, std::function<RemoteCursorState()> position)
    : mainQueue_(std::move(mainQueue)),
      routes_(std::move(routes)),
      isShown_(std::move(isShown)),
      position_(std::move(position)) {}

void CursorSync::refreshCursorSync() {
  task_.cancelAndForget();
  lastPublishedCursorState_.reset();
  if (!isShown_()) {
    publishCursor({});
    return;
  }
  publishCursor(position_());
  task_.hold(startTask(mainQueue_, run(weak_from_this())));
}

void CursorSync::stop() {
  task_.cancelAndForget();
  lastPublishedCursorState_.reset();
  publishCursor({});
}

Task<void> CursorSync::run(std::weak_ptr<CursorSync> weak) {
  for (;;) {
    co_await sleepFor(kPeriod);
    const auto self = weak.lock();
    if (!self || !self->isShown_()) co_return;
    self->publishCursor(self->position_());
  }
}

void CursorSync::publishCursor(const RemoteCursorState& state) {
  if (lastPublishedCursorState_ == state) return;
  lastPublishedCursorState_ = state;
  routes_->updateCursor(state);
}

}  // namespace kestrune
