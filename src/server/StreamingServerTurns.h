#pragma once

#include <memory>
#include <utility>

#include "server/StreamingServer.h"

/// How the sources of the server come back to its queue; part of the server's implementation.
namespace kestrune {

template <class Body>
auto StreamingServer::whileAlive(const Client& client, Body body) {
  return [weakServer = weak_from_this(), weakClient = std::weak_ptr<ClientContext>(client),
          body = std::move(body)](auto&&... arguments) {
    const auto server = weakServer.lock();
    const Client strongClient = weakClient.lock();
    if (!server || !strongClient) return;
    try {
      body(*server, strongClient, std::forward<decltype(arguments)>(arguments)...);
    } catch (...) {
      server->endAfterFailure(strongClient);
    }
  };
}

template <class Body>
void StreamingServer::postToSelf(Body body) {
  queue_->post([weakServer = weak_from_this(), body = std::move(body)]() mutable {
    if (const auto server = weakServer.lock()) body(*server);
  });
}

}  // namespace kestrune
