// The frames that are read do not depend on how the stream is divided, and whatever comes in, what goes out
// is a row of whole frames with nothing behind a close frame.

#include <optional>

#include "FuzzInput.h"
#include "FuzzedServer.h"

using namespace kestrune;

namespace {

/// Reads all the frames of a stream in pieces; the last entry tells an error.
std::vector<std::string> framesOf(const std::vector<std::string>& pieces) {
  std::vector<std::string> frames;
  ReceiveBuffer buffer;
  for (const auto& piece : pieces) {
    buffer.append({reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size()});
    for (;;) {
      const auto result = parseFrame(buffer);
      if (std::holds_alternative<WebSocketNeedsMore>(result)) break;
      if (const auto* error = std::get_if<WebSocketCodecError>(&result)) {
        frames.push_back("error " + std::to_string(static_cast<int>(*error)));
        return frames;
      }
      const auto& frame = std::get<WebSocketFrame>(result);
      require(frame.payload.size() <= kMaximumClientPayload, "a payload is within its limit");
      frames.push_back(std::to_string(static_cast<int>(frame.opcode)) + (frame.fin ? "+" : "-") +
                       std::string(frame.payload.begin(), frame.payload.end()));
    }
    require(buffer.size() < kMaximumClientPayload + 14, "less than one frame is kept");
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto pieces = fuzzPieces(data, size);
  std::string whole;
  for (const auto& piece : pieces) whole += piece;
  require(framesOf(pieces) == framesOf({whole}), "the division changes nothing");

  auto& server = FuzzedServer::shared();
  const auto connection = server.connectViewer();
  for (const auto& piece : pieces) connection->deliver(piece);
  server.run();
  bool isClosed = false;
  for (const auto& frame : takeServerFrames(connection->sent)) {
    require(!isClosed, "nothing follows a close frame");
    isClosed = frame.firstByte == 0x88;
    require(isClosed || frame.firstByte == 0x81 || frame.firstByte == 0x8A, "only texts and pongs go out");
  }
  require(connection->sent.empty(), "frames go out whole");
  require(isClosed == connection->cancelled, "a close frame ends the connection, and nothing else does");
  server.finish(connection);
  return 0;
}
