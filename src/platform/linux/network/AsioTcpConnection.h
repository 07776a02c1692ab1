#pragma once

#include <boost/asio/posix/stream_descriptor.hpp>
#include <memory>
#include <optional>
#include <string>

#include "platform/Network.h"
#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

struct NetworkContext;

/// An accepted connection. The reactor holds it weakly: one that is let go without cancel() is closed.
/// Internal to this folder.
class AsioTcpConnection final : public TcpConnection, public std::enable_shared_from_this<AsioTcpConnection> {
 public:
  /// Takes the descriptor of a connected, non-blocking socket. Throws if the loop cannot watch it.
  AsioTcpConnection(std::shared_ptr<NetworkContext> context, UniqueDescriptor descriptor);
  ~AsioTcpConnection() override;

  void setStateHandler(StateHandler handler) override;
  void start() override;
  void receive(std::size_t minimum, std::size_t maximum, ReceiveHandler handler) override;
  void send(GatheredBytes message, SendHandler handler) override;
  void finishSending() override;
  void cancel() override;

 private:
  struct Receiving {
    std::size_t minimum;
    std::size_t maximum;
    ReceiveHandler handler;
    Bytes gathered;  // what came while less than the minimum was there
  };
  struct Sending {
    GatheredBytes message;
    std::size_t taken;  // bytes that the system has taken, of head and body together
    SendHandler handler;
  };

  void waitToRead();
  void readSome();
  void deliver(ByteView bytes, bool isComplete, const std::optional<std::string>& failure);
  void waitToWrite();
  bool writeSome();
  void finishSend(bool succeeded);
  void fail(int error);
  void postFailure();
  void closeSocket();
  void postToSelf(void (AsioTcpConnection::*step)());

  const std::shared_ptr<NetworkContext> context_;
  // Everything below on the queue.
  boost::asio::posix::stream_descriptor socket_;
  StateHandler onState_;
  std::optional<Receiving> receiving_;
  std::optional<Sending> sending_;
  std::optional<std::string> failure_;
  bool isStarted_ = false;
  bool isCancelled_ = false;
};

}  // namespace kestrune::linux_platform
