#pragma once

#include <chrono>
#include <cstddef>
#include <limits>

#include "runtime/Clock.h"

namespace kestrune {

/// How the rules of the routes for a viewer's messages differ.
struct ViewerSessionRules {
  /// The least time between two accepted "pointer" messages.
  Duration pointerSpacing;
  /// For every phase; else for moves alone.
  bool spacesEveryPointerPhase;
  /// A "pointer" or "click" with bad fields delays the next one too, as a "tap" does; else only one
  /// with good fields.
  bool badMessagesCountForSpacing;
  /// A "pointer" of phase "up" is answered always; else only if it failed.
  bool answersPointerUp;
  /// Taps outside the picture are ignored; else the input refuses them.
  bool ignoresTapsOutside;
  /// A "move" with a sensitivity outside these is ignored.
  double lowestSensitivity;
  double highestSensitivity;
  /// In bytes of UTF-8; longer ones are ignored.
  std::size_t maximumText;
  std::size_t maximumKey;
  /// A "ping" must hold the number "sentAt", which the answer repeats.
  bool echoesSentAt;
  /// The answer to "mode" is followed by the settings.
  bool sendsSettingsAfterMode;
  /// "startStream" and "issueReport" come this way.
  bool takesHostRequests;
};

// A third of a nanosecond of 1/45 s and 1/120 s is rounded up.
inline constexpr ViewerSessionRules kLocalSessionRules{
    .pointerSpacing = std::chrono::nanoseconds(22'222'223),
    .spacesEveryPointerPhase = false,
    .badMessagesCountForSpacing = false,
    .answersPointerUp = true,
    .ignoresTapsOutside = false,
    .lowestSensitivity = -std::numeric_limits<double>::infinity(),
    .highestSensitivity = std::numeric_limits<double>::infinity(),
    .maximumText = std::numeric_limits<std::size_t>::max(),
    .maximumKey = std::numeric_limits<std::size_t>::max(),
    .echoesSentAt = false,
    .sendsSettingsAfterMode = false,
    .takesHostRequests = true,
};
inline constexpr ViewerSessionRules kHostedSessionRules{
    .pointerSpacing = std::chrono::nanoseconds(8'333'334),
    .spacesEveryPointerPhase = true,
    .badMessagesCountForSpacing = true,
    .answersPointerUp = false,
    .ignoresTapsOutside = true,
    .lowestSensitivity = 0.1,
    .highestSensitivity = 3.0,
    .maximumText = 2048,
    .maximumKey = 32,
    .echoesSentAt = true,
    .sendsSettingsAfterMode = true,
    .takesHostRequests = false,
};

}  // namespace kestrune
