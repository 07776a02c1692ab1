#pragma once

#include "model/StreamPhase.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns `phase`. Main queue only.
class PhaseMachine {
 public:
  const Observable<StreamPhase>& phase() const { return phase_; }
  StreamPhase::Case value() const { return phase_->value; }
  /// A transition that is not allowed changes nothing and is logged.
  void set(StreamPhase next);

 private:
  Published<StreamPhase> phase_;
};

}  // namespace kestrune
