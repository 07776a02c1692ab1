#pragma once

#include <string>

namespace kestrune {

/// The phase of the stream. Two phases are equal when their case is and, for `failed`, their message.
struct StreamPhase {
  enum class Case { idle, sourceSelected, starting, remoteReady, streaming, recovering, failed };

  Case value = Case::idle;
  std::string failureMessage;  // of `failed` only

  StreamPhase() = default;
  StreamPhase(Case phase) : value(phase) {}
  static StreamPhase failed(std::string message);

  /// Localized; it never contains the failure message.
  std::string title() const;

  friend bool operator==(const StreamPhase&, const StreamPhase&) = default;
};

/// Whether the phase machine may go from one case to the other.
bool isTransitionAllowed(StreamPhase::Case from, StreamPhase::Case to);

}  // namespace kestrune
