#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Geometry.h"

namespace kestrune {

/// The vocabulary of remote control that the input service, the viewer protocol and the coordinator share.
/// The raw values are the wire forms, equal to the names of the cases.

enum class RemoteMouseButton { left, right };
enum class RemotePointerPhase { down, move, up, cancel };

enum class RemoteTapResult {
  clicked,  // done; also of every successful operation that is not a click
  controlDisabled,
  permissionRequired,
  displayRequired,
  invalidCoordinates,
  applicationUnavailable,
  eventFailed,
};

std::string_view rawValue(RemoteMouseButton button);
std::string_view rawValue(RemotePointerPhase phase);
std::string_view rawValue(RemoteTapResult result);
std::optional<RemoteMouseButton> remoteMouseButton(std::string_view raw);
std::optional<RemotePointerPhase> remotePointerPhase(std::string_view raw);

/// What the viewer sees and controls: a display, or the frame of a source without one.
struct RemoteControlTarget {
  Rect fallbackFrame;  // global points
  std::optional<DisplayID> displayID;
  friend bool operator==(const RemoteControlTarget&, const RemoteControlTarget&) = default;
};

/// The pointer as the viewer draws it, normalized to the target, (0, 0) at the top left.
struct RemoteCursorState {
  bool visible = false;
  double x = 0.5;
  double y = 0.5;
  friend bool operator==(const RemoteCursorState&, const RemoteCursorState&) = default;
};

/// What both routes show the viewer of the stream's state.
enum class RemoteStreamState { armed, starting, streaming, error };
std::string_view rawValue(RemoteStreamState state);

/// A viewer's wish to report an issue, and what became of it.
struct ViewerIssueReportRequest {
  std::string reportId;
  std::string category;
  std::string symptom;
};
struct ViewerIssueReportResult {
  std::string reportId;
  std::optional<int> issueNumber;
};

}  // namespace kestrune
