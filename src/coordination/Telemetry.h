#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "coordination/TaskSlot.h"
#include "coordination/ViewerRoutes.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns `metrics`: gathers the counters of capture, of the routes and of the viewer, and tells every route
/// how the host is doing. Main queue only; owned by a shared_ptr.
class Telemetry final : public std::enable_shared_from_this<Telemetry> {
 public:
  /// What a route says of itself once a second.
  struct RouteCounters {
    std::uint64_t bytesSent = 0;
    std::int64_t pendingFrames = 0;
    std::uint64_t droppedFrames = 0;
    bool isViewerConnected = false;
  };
  /// May complete on any thread.
  using ReadCounters = std::function<void(Completion<RouteCounters>)>;
  /// The settings of the stream that the diagnostics name.
  struct StreamFacts {
    StreamDisplayMode displayMode = StreamDisplayMode::mainDisplay;
    StreamFrameRate frameRate = StreamFrameRate::fps60;
    AudioChannelMode audioMode = AudioChannelMode::stereo;
  };

  Telemetry(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const ViewerRoutes> routes,
            ReadCounters readCounters, std::function<StreamFacts()> facts);

  const Observable<StreamMetrics>& metrics() const { return metrics_; }

  /// Reads the routes' counters now and then every second, until stop() or another start.
  void startMetricsTask();
  void stop();
  /// Back to zero but for what outlives a stream: the viewer and the bytes and losses of the connection.
  void resetCapture();
  void clear() { metrics_ = StreamMetrics{}; }

  void setLastError(const std::optional<std::string>& message);
  void setViewerPresent(bool present);
  void applyCaptureMetrics(const StreamMetrics& record);
  void takeViewerTelemetry(const ViewerTelemetry& telemetry);

 private:
  static Task<void> run(std::weak_ptr<Telemetry> weak);
  HostDiagnostics diagnostics() const;

  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::shared_ptr<const ViewerRoutes> routes_;
  const ReadCounters readCounters_;
  const std::function<StreamFacts()> facts_;
  Published<StreamMetrics> metrics_;
  TaskSlot task_;
};

}  // namespace kestrune
