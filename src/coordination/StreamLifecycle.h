#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "coordination/CaptureControl.h"
#include "coordination/ErrorReport.h"
#include "coordination/PhaseMachine.h"
#include "coordination/TaskSlot.h"
#include "coordination/ViewerRoutes.h"
#include "model/CaptureSource.h"

namespace kestrune {

/// Decides when the server and capture start and stop, and what the phase and the viewers' stream state are.
/// Main queue only; its tasks need an owner that keeps it alive.
class StreamLifecycle {
 public:
  /// What it asks of the other parts, and tells them.
  struct Joints {
    std::function<bool()> requirePermissions;
    std::function<bool()> hasSource;
    std::function<bool()> isViewerConnected;
    /// Whether the source is being prepared; a start request then waits for the viewer's next one.
    std::function<bool()> isPreparingSource;
    /// Selects and readies what a stream shows; whether that succeeded. A viewer that waits is told why not.
    std::function<Task<bool>()> prepareSource;
    std::function<void()> onServerStarted;
    std::function<void()> onArmed;
    /// A viewer's request has started capture.
    std::function<void()> onCaptureStarted;
    /// Capture is about to stop, or has stopped by itself: the button that the viewer holds is released.
    std::function<void()> onStreamEnding;
    /// The standby is reached again after a stream.
    std::function<void()> onStreamEnded;
    std::function<void()> onTeardownBegan;
    std::function<void()> onTornDown;
    /// The program is about to end: nothing may be opened any more.
    std::function<void()> onTerminating;
    /// Ends the managed browser.
    std::function<Task<void>()> endBrowser;
  };

  StreamLifecycle(FlowStarter startFlow, CaptureControl& capture, std::shared_ptr<ViewerRoutes> routes,
                  ErrorReport& errors, Joints joints);

  const Observable<StreamPhase>& phase() const { return phase_.phase(); }
  /// A viewer's request may start capture.
  const Observable<bool>& isRemoteStartArmed() const { return isRemoteStartArmed_; }
  /// The server or capture is being started, or capture is on its way back to standby.
  const Observable<bool>& isRemoteStartBusy() const { return isRemoteStartBusy_; }
  /// The server is up.
  bool ownsActiveResources() const { return ownsActiveResources_; }
  bool isTearingDown() const { return isTearingDown_; }

  /// See StreamCoordinator.
  Task<void> startServing();
  Task<void> stop();
  /// Ends capture; the standby stays armed.
  Task<void> returnToStandby();
  Task<void> prepareForTermination();
  Task<void> teardown();
  void setPhase(StreamPhase next) { phase_.set(std::move(next)); }

  /// The one decision about a viewer's request to start, on any route.
  Task<void> handleStreamStartRequest();
  /// Shows viewers an error; `record`: also the user at the machine. Changes no phase.
  void publishRemoteError(const std::string& message, bool record);
  /// The capture stream has ended by itself.
  Task<void> handleCaptureStopped(std::exception_ptr failure);
  void handleSourceReported();
  void handleViewerChanged(bool isPresent);
  void handleEncodingUnneeded();

 private:
  Task<void> runStartup(Task<void> body);
  Task<void> armingBody();
  Task<void> captureBody();
  Task<void> runTeardown();
  Task<void> endStartup();
  StreamPhase restingPhase() const;

  const FlowStarter startFlow_;
  CaptureControl& capture_;
  const std::shared_ptr<ViewerRoutes> routes_;
  ErrorReport& errors_;
  const Joints joints_;
  PhaseMachine phase_;
  Published<bool> isRemoteStartArmed_;
  Published<bool> isRemoteStartBusy_;
  TaskSlot startupTask_;
  TaskSlot teardownTask_;
  int endings_ = 0;  // of streams, and of what would have become one
  bool ownsActiveResources_ = false;
  bool isTearingDown_ = false;
  bool isTerminating_ = false;
};

}  // namespace kestrune
