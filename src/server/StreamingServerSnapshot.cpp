#include "server/StreamingServerSnapshot.h"

#include <cmath>
#include <utility>

#include "platform/support/Json.h"

namespace kestrune {

std::optional<std::string> encodeSnapshot(const StreamingServerSnapshot& snapshot) {
  JsonValue::Object object{
      {"viewerConnected", snapshot.viewerConnected},
      {"audioSequence", snapshot.audioSequence},
      {"storedAudioChunks", snapshot.storedAudioChunks},
      {"storedVideoPackets", snapshot.storedVideoPackets},
      {"outboundVideoFrames", snapshot.outboundVideoFrames},
      {"droppedOutboundFrames", snapshot.droppedOutboundFrames},
      {"bytesSent", snapshot.bytesSent},
      {"uptimeSeconds", snapshot.uptimeSeconds},
  };
  if (const auto& viewer = snapshot.viewer) {
    if (!std::isfinite(viewer->viewerFPS) || !std::isfinite(viewer->decodeMilliseconds)) return std::nullopt;
    object.emplace_back(
        "viewer", JsonValue::Object{
                      {"viewerFPS", viewer->viewerFPS},
                      {"decodeMilliseconds", viewer->decodeMilliseconds},
                      {"videoBufferMilliseconds", viewer->videoBufferMilliseconds},
                      {"audioBufferMilliseconds", viewer->audioBufferMilliseconds},
                      {"audioDriftMilliseconds", viewer->audioDriftMilliseconds},
                      {"reconnects", viewer->reconnects},
                      {"videoBufferRebuildTargetMilliseconds", viewer->videoBufferRebuildTargetMilliseconds},
                  });
  }
  return serializeJson(std::move(object));
}

}  // namespace kestrune
