// Every piece of the input is one control message: commands are read within their ranges, and what is
// answered is JSON with a type, or a close frame.

#include <cmath>

#include "FuzzInput.h"
#include "FuzzedServer.h"

using namespace kestrune;

namespace {

void check(const ViewerCommand& command) {
  if (const auto* tap = std::get_if<viewer_command::Tap>(&command)) {
    require(std::isfinite(tap->position.x) && std::isfinite(tap->position.y), "a tap has finite coordinates");
  } else if (const auto* move = std::get_if<viewer_command::Move>(&command)) {
    require(std::isfinite(move->dx) && std::isfinite(move->dy) && std::isfinite(move->sensitivity),
            "a move is finite");
  } else if (const auto* telemetry = std::get_if<ViewerTelemetry>(&command)) {
    const auto target = telemetry->videoBufferRebuildTargetMilliseconds;
    require(target >= 5000 && target <= 20'000 && target % 5000 == 0, "a rebuild target is one of four");
    require(std::isfinite(telemetry->viewerFPS) && std::isfinite(telemetry->decodeMilliseconds),
            "telemetry is finite");
  } else if (const auto* report = std::get_if<ViewerIssueReportRequest>(&command)) {
    const auto number = std::stoi(report->reportId);
    require(number >= 1000 && number <= 9999, "a report has four digits");
    require(!report->category.empty() && report->symptom.size() <= 64,
            "report words are within their limits");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto pieces = fuzzPieces(data, size);
  auto& server = FuzzedServer::shared();
  const auto connection = server.connectViewer();
  for (const auto& piece : pieces) {
    const ByteView bytes(reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size());
    if (const auto message = parseViewerMessage(bytes)) {
      readAuthentication(*message);
      if (const auto command = readCommand(*message)) check(*command);
    }
    connection->deliver(textFrame(piece));
    server.run();
  }
  for (const auto& frame : takeServerFrames(connection->sent)) {
    if (frame.firstByte == 0x88) continue;
    const auto answer = parseJson(frame.payload);
    require(answer && answer->find("type") && answer->find("type")->string(),
            "an answer is JSON with a type");
  }
  server.finish(connection);
  return 0;
}
