#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "runtime/Task.h"
#include "viewer/ViewerRoute.h"

namespace kestrune {

/// All routes to a viewer as one: state, settings, cursor, diagnostics and media are said once, to each of
/// them. Main queue only, but for the media, which any thread may broadcast.
class ViewerRoutes {
 public:
  /// In the order of their start.
  explicit ViewerRoutes(std::vector<std::shared_ptr<ViewerRoute>> routes) : routes_(std::move(routes)) {}

  /// Starts one after another; throws the first failure and leaves those that run to stop().
  Task<void> start();
  /// Stops all, the last one first, and returns when they are torn down.
  Task<void> stop();

  void setState(RemoteStreamState state, const std::optional<std::string>& message = {});
  /// Counts the calls of setState().
  std::uint64_t stateGeneration() const { return stateGeneration_; }
  void updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec) const;
  void updateCursor(const RemoteCursorState& state) const;
  void updateDiagnostics(const HostDiagnostics& diagnostics) const;
  void broadcastVideo(const EncodedVideoPacket& packet) const;
  void broadcastAudio(AudioPCMChunk chunk) const;

 private:
  const std::vector<std::shared_ptr<ViewerRoute>> routes_;
  std::uint64_t stateGeneration_ = 0;
};

}  // namespace kestrune
