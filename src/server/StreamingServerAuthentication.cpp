#include <utility>

#include "server/ServerLog.h"
#include "server/StreamingServer.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {

bool StreamingServer::authorizeRequest(const HTTPRequest& request, const Client& client) {
  const auto presented = request.bearerToken();
  switch (presented ? tokenCheck_.check(presented) : tokenCheck_.refuse()) {
    case TokenCheck::Verdict::right:
      return true;
    case TokenCheck::Verdict::wrong:
      send(failureResponse(HTTPFailure::unauthorized), client);
      return false;
    case TokenCheck::Verdict::rateLimited:
      send(failureResponse(HTTPFailure::rateLimited), client);
      return false;
    case TokenCheck::Verdict::unavailable:
      send(failureResponse(HTTPFailure::serverUnavailable), client);
      return false;
  }
  return false;
}

void StreamingServer::handleAuthMessage(const ViewerAuthentication& message, const Client& client) {
  if (!message.isAuthentication) {
    closeClient(client, websocket_close::kAuthenticateFirst);
    return;
  }
  switch (tokenCheck_.check(message.token)) {
    case TokenCheck::Verdict::right:
      break;
    case TokenCheck::Verdict::wrong:
      return closeClient(client, websocket_close::kUnauthorized);
    case TokenCheck::Verdict::rateLimited:
      return closeClient(client, websocket_close::kTryAgainLater);
    case TokenCheck::Verdict::unavailable:
      return closeClient(client, websocket_close::kServerUnavailable);
  }
  if (const auto viewer = viewer_) {
    // A page comes back after a lost link of which the host has heard nothing yet: that is no second viewer.
    const bool isSameViewer = message.viewer && message.viewer == viewer->viewer()->identifier;
    if (message.takeover == false && !isSameViewer) {
      closeClient(client, websocket_close::kViewerActive);
      return;
    }
    closeClient(viewer, websocket_close::kReplaced);
    kServerLog.notice("Existing viewer replaced by a newer authenticated viewer");
  }
  admitViewer(client, message.viewer);
}

void StreamingServer::admitViewer(const Client& client, std::optional<std::string> identifier) {
  auto session = std::make_shared<ViewerSession>(kLocalSessionRules, input_, requests_);
  client->webSocketPeer()->viewer = WebSocketPeer::Viewer{std::move(session), std::move(identifier)};
  viewer_ = client;
  enqueueMessage(authenticatedMessage(audioStore_->latestSequence()), client);
  tell(client, host_.aboutSettings(false, audioStore_->latestSequence()));
  tell(client, host_.aboutCursor());
  tell(client, host_.aboutStream());
  tell(client, host_.aboutDiagnostics());
  requests_->onViewerConnectionChanged(true, false);
  requests_->onKeyframeRequested();
  kServerLog.notice("Authenticated viewer connected");
}

}  // namespace kestrune
