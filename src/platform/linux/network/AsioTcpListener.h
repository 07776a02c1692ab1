#pragma once

#include <sys/socket.h>

#include <memory>

#include "platform/Network.h"

namespace kestrune::linux_platform {

struct NetworkContext;

/// A listening socket on a loopback address. Short of descriptors it asks its owner to make room, or else
/// refuses what it cannot serve until there are some again. Internal to this folder.
class AsioTcpListener final : public TcpListener {
 public:
  /// Throws an Error unless the host is a loopback address in numeric form.
  AsioTcpListener(std::shared_ptr<NetworkContext> context, const TcpEndpoint& endpoint);
  ~AsioTcpListener() override;

  void setStateHandler(StateHandler handler) override;
  void setNewConnectionHandler(ConnectionHandler handler) override;
  void setMakeRoomHandler(MakeRoomHandler handler) override;
  void start() override;
  void cancel() override;

 private:
  class Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kestrune::linux_platform
