#include <utility>

#include "platform/support/ConstantTime.h"
#include "runtime/Error.h"
#include "server/ServerLog.h"
#include "server/StreamingServer.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {

bool StreamingServer::authorizeRequest(const HTTPRequest& request, const Client& client) {
  if (const auto presented = request.bearerToken()) {
    const auto matches = isToken(*presented);
    if (!matches) {
      send(failureResponse(HTTPFailure::serverUnavailable), client);
      return false;
    }
    if (*matches) return true;
  }
  send(failureResponse(recordRefusal() ? HTTPFailure::unauthorized : HTTPFailure::rateLimited), client);
  return false;
}

void StreamingServer::handleAuthMessage(const ViewerAuthentication& message, const Client& client) {
  if (!message.isAuthentication) {
    closeClient(client, websocket_close::kAuthenticateFirst);
    return;
  }
  const auto matches = isToken(message.token);
  if (!matches) {
    closeClient(client, websocket_close::kServerUnavailable);
    return;
  }
  if (!*matches) {
    closeClient(client, recordRefusal() ? websocket_close::kUnauthorized : websocket_close::kTryAgainLater);
    return;
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

std::optional<bool> StreamingServer::isToken(const std::optional<std::string>& candidate) {
  try {
    const auto token = tokenSource_->token();
    return candidate && constantTimeEquals(*candidate, token);
  } catch (...) {
    kServerLog.error("Viewer token lookup failed: " + localizedDescription(std::current_exception()));
    return std::nullopt;
  }
}

bool StreamingServer::recordRefusal() {
  const auto now = clock_->continuousNow();
  if (!rateLimiter_.isAllowed(now)) return false;
  rateLimiter_.recordFailure(now);
  return true;
}

void StreamingServer::admitViewer(const Client& client, std::optional<std::string> identifier) {
  auto session = std::make_shared<ViewerSession>(kLocalSessionRules, input_, requests_);
  client->webSocketPeer()->viewer = WebSocketPeer::Viewer{std::move(session), std::move(identifier)};
  viewer_ = client;
  enqueueText(authenticatedMessage(audioStore_->latestSequence()), client);
  sendStreamSettings(client, false);
  sendCursorState(client);
  sendStreamState(client);
  sendHostDiagnostics(client);
  requests_->onViewerConnectionChanged(true, false);
  requests_->onKeyframeRequested();
  kServerLog.notice("Authenticated viewer connected");
}

}  // namespace kestrune
