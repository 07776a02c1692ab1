#pragma once

#include <functional>
#include <memory>

#include "capture/ScreenCaptureService.h"
#include "coordination/TaskSlot.h"
#include "runtime/Published.h"

namespace kestrune {

/// Starts and stops the capture stream, and owns whether there is one. Main queue only; its tasks need an
/// owner that keeps it alive.
class CaptureControl {
 public:
  /// What it asks of the other parts, and tells them.
  struct Joints {
    std::function<bool()> requirePermissions;
    /// Before the stream is started.
    std::function<void()> onStarting;
    /// Starts the stream with the present settings; throws.
    std::function<Task<void>()> startStream;
    std::function<void()> onStarted;
    /// After every stopCapture(), also one that found nothing to stop, and after a stream that ended by
    /// itself.
    std::function<void()> onStopped;
  };

  CaptureControl(FlowStarter startFlow, std::shared_ptr<ScreenCaptureService> service, Joints joints);

  /// A capture stream has been started and not yet stopped.
  const Observable<bool>& isCapturing() const { return isCapturing_; }
  /// A stopCapture() is under way; also in the turn between the end of the stream and its consequences.
  bool isStopping() const { return stopsUnderWay_ > 0; }

  /// Starts with encoding off. Throws KestruneError, or CancellationError with the stream running.
  Task<void> startCapture();
  /// Overlapping calls share one run. A failure is logged.
  Task<void> stopCapture();
  /// The stream has ended by itself.
  void streamEnded();
  void setVideoEncodingEnabled(bool enabled) const { service_->setVideoEncodingEnabled(enabled); }

 private:
  Task<void> runStop();

  const FlowStarter startFlow_;
  const std::shared_ptr<ScreenCaptureService> service_;
  const Joints joints_;
  Published<bool> isCapturing_;
  TaskSlot captureStopTask_;
  int stopsUnderWay_ = 0;
};

}  // namespace kestrune
