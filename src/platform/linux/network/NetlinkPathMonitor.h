#pragma once

#include <memory>

#include "platform/Network.h"

namespace kestrune::linux_platform {

class Reactor;

/// Satisfied while an interface other than loopback is up with an address and there is a default route, as
/// the kernel tells over rtnetlink. Waits on a reactor; changes that come together are reported once. Where
/// the kernel gives no such socket, the path counts as satisfied.
///
/// start() opens the sockets in the network namespace of its caller. After destruction the handler is not
/// called again, save for a call that already waits in its queue.
class NetlinkPathMonitor final : public NetworkPathMonitor {
 public:
  explicit NetlinkPathMonitor(std::shared_ptr<Reactor> reactor);
  ~NetlinkPathMonitor() override;

  void start(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler) override;

 private:
  class Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kestrune::linux_platform
