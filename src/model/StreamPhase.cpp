#include "model/StreamPhase.h"

#include <array>
#include <string_view>

#include "platform/Bundle.h"

namespace kestrune {

StreamPhase StreamPhase::failed(std::string message) {
  StreamPhase phase(Case::failed);
  phase.failureMessage = std::move(message);
  return phase;
}

std::string StreamPhase::title() const {
  constexpr std::array<std::string_view, 7> titles{"Idle",      "Source Selected", "Starting", "Remote Ready",
                                                   "Streaming", "Recovering",      "Failed"};
  return localized(titles.at(static_cast<std::size_t>(value)));
}

bool isTransitionAllowed(StreamPhase::Case from, StreamPhase::Case to) {
  constexpr bool Y = true;
  constexpr bool n = false;
  // Rows: from; columns: to; both in the order of the cases.
  constexpr std::array<std::array<bool, 7>, 7> allowed{{
      {Y, Y, n, n, n, n, Y},  // idle
      {Y, Y, Y, n, n, n, Y},  // sourceSelected
      {Y, Y, Y, Y, Y, n, Y},  // starting
      {Y, Y, Y, Y, Y, Y, Y},  // remoteReady
      {Y, Y, n, Y, Y, Y, Y},  // streaming
      {Y, Y, n, Y, Y, Y, Y},  // recovering
      {Y, Y, Y, n, n, n, Y},  // failed
  }};
  return allowed.at(static_cast<std::size_t>(from)).at(static_cast<std::size_t>(to));
}

}  // namespace kestrune
