#pragma once

#include <functional>
#include <utility>

#include "model/RemoteControl.h"

namespace kestrune {

/// Pauses what plays on the machine when its viewer is lost, and resumes it when one is back. Only its own
/// pause is undone: what the user paused stays paused. Main queue only.
class SourcePlayback {
 public:
  struct Facts {
    bool isLocalViewerConnected = false;
    bool isHostedViewerConnected = false;
    bool wasPlaying = false;  // the viewer that went away was in video mode and had not paused
    bool isCapturing = false;
  };

  /// `togglePlayPause` presses the media key.
  explicit SourcePlayback(std::function<RemoteTapResult()> togglePlayPause)
      : togglePlayPause_(std::move(togglePlayPause)) {}

  /// After each arrival and departure of a viewer. A key that could not be pressed is tried again at the next
  /// one.
  void handleViewerChange(const Facts& facts);

 private:
  void pause();
  void resume();

  const std::function<RemoteTapResult()> togglePlayPause_;
  bool isAutomaticallyPaused_ = false;
};

}  // namespace kestrune
