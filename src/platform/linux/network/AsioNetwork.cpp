#include "platform/linux/network/AsioNetwork.h"

#include "platform/linux/network/AsioTcpListener.h"
#include "platform/linux/network/NetworkContext.h"

namespace kestrune::linux_platform {

AsioNetwork::AsioNetwork(const std::string& queueName)
    : thread_(queueName), context_(std::make_shared<NetworkContext>(NetworkContext{thread_.reactor()})) {}

std::shared_ptr<SerialQueue> AsioNetwork::queue() const {
  return thread_.reactor();
}

std::unique_ptr<TcpListener> AsioNetwork::createListener(const TcpEndpoint& requiredLocalEndpoint) {
  return std::make_unique<AsioTcpListener>(context_, requiredLocalEndpoint);
}

}  // namespace kestrune::linux_platform
