#include <utility>

#include "server/StreamingServerTurns.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {

/// A viewer's session on its connection.
struct StreamingServer::Channel final : ViewerChannel {
  StreamingServer& server;
  const Client& client;

  Channel(StreamingServer& server_, const Client& client_) : server(server_), client(client_) {}

  void sendMessage(const JsonValue& message, OutboundKind kind) override {
    server.enqueueMessage(message, client, kind);
  }
  void requestKeyframe() override {
    if (auto* peer = client->webSocketPeer()) server.settle(peer->outbound.startOver());
  }
  /// enqueue() looks up the budget of the mode.
  void applyMode(bool /*control*/) override { requestKeyframe(); }
  ActiveSettings activeSettings() const override { return server.host_.settings; }
  std::optional<std::uint64_t> audioSequence() const override { return server.audioStore_->latestSequence(); }
  IssueReportCompletion issueReportCompletion() override {
    return [weak = server.weak_from_this(), id = client->id](ViewerIssueReportResult result) {
      if (const auto self = weak.lock()) self->answerIssueReport(id, std::move(result));
    };
  }
};

void StreamingServer::handleTextFrame(ByteView payload, const Client& client) {
  const auto message = parseViewerMessage(payload);
  if (!message) {
    closeClient(client, websocket_close::kInvalidControl);
  } else if (const auto session = client->session()) {
    Channel channel(*this, client);
    session->handle(*message, clock_->continuousNow(), channel);
  } else {
    handleAuthMessage(readAuthentication(*message), client);
  }
}

void StreamingServer::answerIssueReport(ClientID id, ViewerIssueReportResult result) {
  postToSelf([id, result = std::move(result)](StreamingServer& server) {
    const auto viewer = server.viewer_;
    if (viewer && viewer->id == id) server.enqueueMessage(issueReportResultMessage(result), viewer);
  });
}

}  // namespace kestrune
