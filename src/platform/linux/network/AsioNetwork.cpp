#include "platform/linux/network/AsioNetwork.h"

#include <pthread.h>

#include "platform/linux/network/AsioReactor.h"
#include "platform/linux/network/AsioTcpListener.h"

namespace kestrune::linux_platform {

AsioNetwork::AsioNetwork(const std::string& queueName)
    : reactor_(std::make_shared<AsioReactor>(queueName)), thread_([reactor = reactor_] {
        const auto& full = reactor->name();
        const auto dot = full.find_last_of('.');
        // The system keeps 15 characters of a thread's name.
        const std::string shortName = full.substr(dot == std::string::npos ? 0 : dot + 1).substr(0, 15);
        pthread_setname_np(pthread_self(), shortName.c_str());
        reactor->run();
      }) {}

AsioNetwork::~AsioNetwork() {
  reactor_->stop();
  if (reactor_->isCurrent()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

std::shared_ptr<SerialQueue> AsioNetwork::queue() const {
  return reactor_;
}

std::unique_ptr<TcpListener> AsioNetwork::createListener(const TcpEndpoint& requiredLocalEndpoint) {
  return std::make_unique<AsioTcpListener>(reactor_, requiredLocalEndpoint);
}

}  // namespace kestrune::linux_platform
