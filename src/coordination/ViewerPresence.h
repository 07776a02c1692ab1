#pragma once

#include <functional>
#include <memory>

#include "coordination/TaskSlot.h"
#include "runtime/Published.h"

namespace kestrune {

enum class ViewerRouteKind { local, hosted };

/// Owns on which routes a viewer is there, and how long the absence of all of them is tolerated: encoding
/// goes on for 5 seconds, so that a page that is loaded anew costs no restart of the encoder, and capture
/// for 60. Main queue only; owned by a shared_ptr.
class ViewerPresence final : public std::enable_shared_from_this<ViewerPresence> {
 public:
  struct Change {
    ViewerRouteKind route = ViewerRouteKind::local;
    bool connected = false;
    bool wasPlaying = false;  // see ViewerRequests
    bool hadViewer = false;   // on any route, before the change
  };
  struct Joints {
    std::function<bool()> isCapturing;
    std::function<bool()> isArmed;
    /// A start or an end of the stream is under way.
    std::function<bool()> isBusy;
    /// A teardown has forgotten the viewers already: their changes do not count.
    std::function<bool()> isTearingDown;
    /// After the new state is there, before its consequences.
    std::function<void(const Change& change)> onRouteChanged;
    /// After each arrival and departure: whether a viewer is there on any route.
    std::function<void(bool isPresent)> onChanged;
    /// No viewer for 5 seconds.
    std::function<void()> onEncodingUnneeded;
    /// No viewer for 60 seconds of a stream that was started from standby.
    std::function<void()> onUnattended;
  };

  ViewerPresence(std::shared_ptr<SerialQueue> mainQueue, Joints joints);

  /// On any route.
  const Observable<bool>& isConnected() const { return isConnected_; }
  bool isConnected(ViewerRouteKind route) const {
    return route == ViewerRouteKind::local ? localViewerConnected_ : hostedRelayConnected_;
  }

  void handleViewerChange(ViewerRouteKind route, bool connected, bool wasPlaying);
  /// Begins the 60 seconds anew, if there is no viewer of an armed stream.
  void scheduleViewerDisconnectStop();
  /// Stops both timers; encoding and capture stay as they are.
  void cancelTimers();
  /// The same, and there is no viewer any more; nothing is notified.
  void forget();

 private:
  bool isUnattended() const;
  static Task<void> disableEncodingLater(std::weak_ptr<ViewerPresence> weak);
  static Task<void> stopCaptureLater(std::weak_ptr<ViewerPresence> weak);

  const std::shared_ptr<SerialQueue> mainQueue_;
  const Joints joints_;
  Published<bool> isConnected_;
  bool localViewerConnected_ = false;
  bool hostedRelayConnected_ = false;
  TaskSlot encodingDisableTask_;
  TaskSlot viewerDisconnectStopTask_;
};

}  // namespace kestrune
