#include "model/RemoteControl.h"

#include <array>
#include <cstddef>

namespace kestrune {
namespace {

constexpr std::array<std::string_view, 2> kButtons{"left", "right"};
constexpr std::array<std::string_view, 4> kPhases{"down", "move", "up", "cancel"};
constexpr std::array<std::string_view, 7> kResults{
    "clicked",         "controlDisabled",    "permissionRequired",
    "displayRequired", "invalidCoordinates", "applicationUnavailable",
    "eventFailed"};
constexpr std::array<std::string_view, 4> kStates{"armed", "starting", "streaming", "error"};

template <class Enumeration, std::size_t count>
std::optional<Enumeration> find(const std::array<std::string_view, count>& texts, std::string_view raw) {
  for (std::size_t index = 0; index < count; ++index) {
    if (texts[index] == raw) return static_cast<Enumeration>(index);
  }
  return std::nullopt;
}

}  // namespace

std::string_view rawValue(RemoteMouseButton button) {
  return kButtons.at(static_cast<std::size_t>(button));
}
std::string_view rawValue(RemotePointerPhase phase) {
  return kPhases.at(static_cast<std::size_t>(phase));
}
std::string_view rawValue(RemoteTapResult result) {
  return kResults.at(static_cast<std::size_t>(result));
}
std::string_view rawValue(RemoteStreamState state) {
  return kStates.at(static_cast<std::size_t>(state));
}
std::optional<RemoteMouseButton> remoteMouseButton(std::string_view raw) {
  return find<RemoteMouseButton>(kButtons, raw);
}
std::optional<RemotePointerPhase> remotePointerPhase(std::string_view raw) {
  return find<RemotePointerPhase>(kPhases, raw);
}

}  // namespace kestrune
