#pragma once

#include <memory>
#include <string>

#include "platform/Network.h"
#include "platform/linux/reactor/ReactorThread.h"

namespace kestrune::linux_platform {

struct NetworkContext;

/// TCP on one reactor thread, which is also the thread of queue(): received bytes reach the owner's state
/// without a change of thread, and delayed work keeps to the continuous clock.
///
/// Only loopback addresses are bound. Destruction runs what was posted to the queue before it and joins the
/// thread; listeners and connections that outlive it stay silent. On its own thread it detaches instead.
class AsioNetwork final : public Network {
 public:
  explicit AsioNetwork(const std::string& queueName = "com.fennwick.Kestrune.server");

  std::shared_ptr<SerialQueue> queue() const override;
  std::unique_ptr<TcpListener> createListener(const TcpEndpoint& requiredLocalEndpoint) override;

 private:
  ReactorThread thread_;
  const std::shared_ptr<NetworkContext> context_;
};

}  // namespace kestrune::linux_platform
