#include "coordination/ViewerRoutes.h"

#include <utility>

namespace kestrune {

Task<void> ViewerRoutes::start() {
  for (const auto& route : routes_) {
    const auto begin = [route](const Completion<Unit>& done) {
      route->start([done](const std::exception_ptr& failure) {
        if (failure) {
          done.fail(failure);
        } else {
          done(Unit{});
        }
      });
    };
    co_await awaitCallback<Unit>(begin);
  }
}

Task<void> ViewerRoutes::stop() {
  for (auto route = routes_.rbegin(); route != routes_.rend(); ++route) {
    const auto end = [route = *route](const Completion<Unit>& done) {
      route->stop([done] { done(Unit{}); });
    };
    co_await awaitCallback<Unit>(end);
  }
}

void ViewerRoutes::setState(RemoteStreamState state, const std::optional<std::string>& message) {
  ++stateGeneration_;
  for (const auto& route : routes_) route->updateRemoteStreamState(state, message);
}

void ViewerRoutes::updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                        StreamVideoCodec codec) const {
  for (const auto& route : routes_) route->updateStreamSettings(profile, frameRate, codec);
}

void ViewerRoutes::updateCursor(const RemoteCursorState& state) const {
  for (const auto& route : routes_) route->updateRemoteCursorState(state);
}

void ViewerRoutes::updateDiagnostics(const HostDiagnostics& diagnostics) const {
  for (const auto& route : routes_) route->updateHostDiagnostics(diagnostics);
}

void ViewerRoutes::broadcastVideo(const EncodedVideoPacket& packet) const {
  for (const auto& route : routes_) route->broadcastVideo(packet);
}

void ViewerRoutes::broadcastAudio(AudioPCMChunk chunk) const {
  for (std::size_t index = 0; index + 1 < routes_.size(); ++index) routes_[index]->broadcastAudio(chunk);
  if (!routes_.empty()) routes_.back()->broadcastAudio(std::move(chunk));
}

}  // namespace kestrune
