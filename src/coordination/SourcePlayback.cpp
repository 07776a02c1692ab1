#include "coordination/SourcePlayback.h"

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("Viewer");
}

void SourcePlayback::handleViewerChange(const Facts& facts) {
  const bool hasViewer = facts.isLocalViewerConnected || facts.isHostedViewerConnected;
  if (isAutomaticallyPaused_) {
    if (hasViewer) resume();
  } else if (!hasViewer && facts.wasPlaying && facts.isCapturing) {
    pause();
  }
}

void SourcePlayback::pause() {
  if (togglePlayPause_() != RemoteTapResult::clicked) return;
  isAutomaticallyPaused_ = true;
  kLog.notice("Paused source playback after viewer connection loss");
}

void SourcePlayback::resume() {
  if (togglePlayPause_() != RemoteTapResult::clicked) return;
  isAutomaticallyPaused_ = false;
  kLog.notice("Resumed source playback after viewer reconnection");
}

}  // namespace kestrune
