#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/Bundle.h"
#include "platform/Network.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Serves the welcome pages on 127.0.0.1: what the managed browser opens where its start page on the internet
/// cannot be reached. The pages are public and hold nothing of the user's; nothing else of the file system
/// can be reached.
///
/// State belongs to the queue of the Network. Must be owned by a shared_ptr; its end closes everything.
class WelcomeServer final : public std::enable_shared_from_this<WelcomeServer> {
 public:
  /// The address of the first page, or nothing where no port was free. Called once, on the Network's queue.
  using StartCompletion = std::function<void(std::optional<std::string> address)>;

  WelcomeServer(std::shared_ptr<Network> network, std::shared_ptr<const Bundle> bundle);
  ~WelcomeServer();
  WelcomeServer(const WelcomeServer&) = delete;
  WelcomeServer& operator=(const WelcomeServer&) = delete;

  /// Listens on `firstPort`, or on one of the few behind it if others are taken. Once. Any thread.
  void start(std::uint16_t firstPort, StartCompletion completion);

 private:
  struct Visitor;

  void listen(std::uint16_t port, int portsLeft, StartCompletion completion);
  void accept(std::shared_ptr<TcpConnection> connection);
  void receive(const std::shared_ptr<Visitor>& visitor);
  void answer(const std::shared_ptr<Visitor>& visitor, std::string_view head);
  void end(const std::shared_ptr<Visitor>& visitor);

  const std::shared_ptr<Network> network_;
  const std::shared_ptr<SerialQueue> queue_;
  const std::shared_ptr<const Bundle> bundle_;
  std::unique_ptr<TcpListener> listener_;
  std::set<std::shared_ptr<Visitor>> visitors_;
};

}  // namespace kestrune
