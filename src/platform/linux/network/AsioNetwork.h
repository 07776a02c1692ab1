#pragma once

#include <memory>
#include <string>
#include <thread>

#include "platform/Network.h"

namespace kestrune::linux_platform {

class AsioReactor;

/// TCP on one reactor thread, which is also the thread of queue(): received bytes reach the owner's state
/// without a change of thread, and delayed work keeps to the continuous clock.
///
/// Only loopback addresses are bound. Destruction runs what was posted to the queue before it and joins the
/// thread; listeners and connections that outlive it stay silent. On its own thread it detaches instead.
class AsioNetwork final : public Network {
 public:
  explicit AsioNetwork(const std::string& queueName = "com.fennwick.Kestrune.server");
  ~AsioNetwork() override;

  std::shared_ptr<SerialQueue> queue() const override;
  std::unique_ptr<TcpListener> createListener(const TcpEndpoint& requiredLocalEndpoint) override;

  /// For adapters of this folder that wait for descriptors of their own.
  const std::shared_ptr<AsioReactor>& reactor() const { return reactor_; }

 private:
  std::shared_ptr<AsioReactor> reactor_;
  std::thread thread_;
};

}  // namespace kestrune::linux_platform
