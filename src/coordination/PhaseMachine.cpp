#include "coordination/PhaseMachine.h"

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

void PhaseMachine::set(StreamPhase next) {
  if (!isTransitionAllowed(phase_->value, next.value)) {
    kLog.error("Rejected invalid stream state transition from " + phase_->title() + " to " + next.title());
    return;
  }
  phase_ = std::move(next);
}

}  // namespace kestrune
