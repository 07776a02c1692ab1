#pragma once

#include <exception>
#include <optional>
#include <string>

#include "model/MediaPackets.h"
#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "runtime/MoveOnlyFunction.h"

namespace kestrune {

/// One way to a viewer: the local server, or the hosted relay. A route shows its viewer what it is told here,
/// at once and again whenever a viewer arrives; without a viewer it keeps the newest state and drops media.
/// The operations may be called from any thread and take effect in the order of the calls.
class ViewerRoute {
 public:
  /// Null on success.
  using StartCompletion = MoveOnlyFunction<void(std::exception_ptr failure)>;
  using StopCompletion = MoveOnlyFunction<void()>;

  virtual ~ViewerRoute() = default;

  /// Completes, on any thread, when a viewer can connect, or with the failure. A stop() that overtakes it
  /// destroys the completion uncalled.
  virtual void start(StartCompletion completion) = 0;
  /// Completes when the viewer is gone and everything is released.
  virtual void stop(StopCompletion completion) = 0;

  virtual void updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                    StreamVideoCodec codec) = 0;
  virtual void updateRemoteStreamState(RemoteStreamState state, std::optional<std::string> message) = 0;
  virtual void updateRemoteCursorState(RemoteCursorState state) = 0;
  virtual void updateHostDiagnostics(HostDiagnostics diagnostics) = 0;
  /// Called on the threads that make the media, which must not wait: a route that is held up drops packets,
  /// and goes on at a key frame that it asks for. The payload is shared, not copied.
  virtual void broadcastVideo(EncodedVideoPacket packet) = 0;
  virtual void broadcastAudio(AudioPCMChunk chunk) = 0;
};

}  // namespace kestrune
