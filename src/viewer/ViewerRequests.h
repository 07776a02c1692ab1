#pragma once

#include <functional>

#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"

namespace kestrune {

/// May be called once, from any thread, also after the viewer or its route has gone.
using IssueReportCompletion = std::function<void(ViewerIssueReportResult)>;

/// What a viewer and its route ask of the host, input apart. Called on the queue of the route; must not
/// block. What an implementation does not override is not provided by its host.
class ViewerRequests {
 public:
  virtual ~ViewerRequests() = default;

  virtual void onStreamStartRequested() {}
  virtual void onKeyframeRequested() {}
  /// With the active settings, not those that the viewer asked for.
  virtual void onStreamSettingsChanged(StreamProfile, StreamFrameRate) {}
  virtual void onVideoCodecFallbackRequested() {}
  virtual void onViewerTelemetry(const ViewerTelemetry&) {}
  /// False if the host takes no reports; the completion is then not called.
  virtual bool onIssueReportRequested(const ViewerIssueReportRequest& /*request*/,
                                      const IssueReportCompletion& /*completion*/) {
    return false;
  }
  /// `wasPlaying` is meant for a disconnect: the viewer was in video mode and had not paused.
  virtual void onViewerConnectionChanged(bool /*connected*/, bool /*wasPlaying*/) {}
};

}  // namespace kestrune
