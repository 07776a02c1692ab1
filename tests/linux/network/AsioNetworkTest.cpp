#include <gtest/gtest.h>

#include <vector>

#include "linux/network/LoopbackPeer.h"
#include "platform/linux/network/AsioNetwork.h"
#include "runtime/Error.h"
#include "support/CapturedLog.h"
#include "support/DescriptorLimit.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;
using State = TcpConnection::State;

Bytes bytes(std::string_view text) {
  return {text.begin(), text.end()};
}
std::string text(ByteView view) {
  return {view.begin(), view.end()};
}

/// A network with one listener. `onAccept` gets each connection, started, on the queue.
class AsioNetworkTest : public testing::Test {
 protected:
  using Connection = std::shared_ptr<TcpConnection>;

  /// "" when it listens, or why not.
  std::string listenOutcome(std::function<void(Connection)> onAccept) {
    FirstOutcome<std::string> outcome;
    runOn(*queue_, [&] {
      listener_ = network_->createListener({"127.0.0.1", port_});
      listener_->setStateHandler([&](TcpListener::State state, const std::string& reason) {
        outcome.set(state == TcpListener::State::ready ? "" : reason);
      });
      listener_->setNewConnectionHandler([onAccept](Connection connection) {
        connection->start();
        onAccept(std::move(connection));
      });
      listener_->start();
    });
    const std::string text = outcome.get();
    runOn(*queue_, [&] { listener_->setStateHandler(nullptr); });
    return text;
  }
  void listen(std::function<void(Connection)> onAccept) { ASSERT_EQ(listenOutcome(std::move(onAccept)), ""); }

  /// Keeps every connection, and greets it.
  void listenAndGreet() {
    listen([&](Connection connection) {
      connections_.push_back(connection);
      connection->send({bytes("hello"), nullptr}, [](bool) {});
    });
  }
  /// What a new peer is greeted with; empty if it is turned away.
  std::string greeting() const { return LoopbackPeer(port_).receive(5); }

  void TearDown() override {
    if (!network_) return;
    runOn(*queue_, [&] {
      if (listener_) listener_->cancel();
      for (const auto& connection : connections_) connection->cancel();
      connections_.clear();
    });
  }

  /// Connects a peer and hands out the accepted end.
  std::pair<LoopbackPeer, Connection> connected(int peerReceiveBuffer = 0) {
    FirstOutcome<Connection> accepted;
    listen([&](Connection connection) {
      connections_.push_back(connection);
      accepted.set(std::move(connection));
    });
    LoopbackPeer peer(port_, peerReceiveBuffer);
    auto connection = accepted.get();
    runOn(*queue_, [&] { listener_->setNewConnectionHandler(nullptr); });
    return {std::move(peer), std::move(connection)};
  }

  const std::uint16_t port_ = LoopbackPeer::freePort();
  std::unique_ptr<AsioNetwork> network_ = std::make_unique<AsioNetwork>("test");
  const std::shared_ptr<SerialQueue> queue_ = network_->queue();
  std::unique_ptr<TcpListener> listener_;  // on the queue
  std::vector<Connection> connections_;    // on the queue
};

TEST_F(AsioNetworkTest, OnlyLoopbackIsBound) {
  for (const auto* host : {"0.0.0.0", "::", "10.0.0.1", "localhost", "", "127.0.0.1 "}) {
    EXPECT_THROW(network_->createListener({host, port_}), Error) << host;
  }
}

TEST_F(AsioNetworkTest, PortInUseFailsAndARestartWorks) {
  {
    auto [peer, connection] = connected();
    const auto first = std::move(listener_);
    EXPECT_EQ(listenOutcome([](const Connection&) {}), "Address already in use");
    // Our side closes first, which leaves the port with a connection in TIME_WAIT.
    runOn(*queue_, [&] {
      connection->cancel();
      first->cancel();
      listener_.reset();
    });
    EXPECT_EQ(peer.receive(1), "");
  }
  listenAndGreet();
  EXPECT_EQ(greeting(), "hello");
}

TEST_F(AsioNetworkTest, ReceivesWithinTheBoundsAsked) {
  auto [peer, connection] = connected();
  FirstOutcome<std::string> first, second, last;
  bool isInCall = true;  // on the queue
  runOn(*queue_, [&] {
    connection->receive(4, 6, [&](ByteView view, bool isComplete, const auto& failure) {
      EXPECT_FALSE(isInCall || isComplete || failure);
      first.set(text(view));
      connection->receive(1, 65'536, [&](ByteView rest, bool, const auto&) { second.set(text(rest)); });
    });
    EXPECT_TRUE(peer.send("ab"));
    isInCall = false;
  });
  ASSERT_TRUE(peer.send("cdefgh"));
  EXPECT_EQ(first.get() + " " + second.get(), "abcdef gh");
  ASSERT_TRUE(peer.send("end"));
  peer.finish();
  runOn(*queue_, [&] {
    connection->receive(10, 100, [&](ByteView view, bool isComplete, const auto& failure) {
      EXPECT_TRUE(isComplete && !failure);
      last.set(text(view));
    });
  });
  EXPECT_EQ(last.get(), "end");
}

TEST_F(AsioNetworkTest, SendsBothPiecesWholeToASlowReader) {
  auto [peer, connection] = connected(4096);
  std::string head(300'000, 'h');
  std::string body(5'000'000, 'b');
  for (std::size_t i = 0; i < body.size(); i += 997) body[i] = static_cast<char>('a' + i % 26);
  FirstOutcome<bool> sent;
  runOn(*queue_, [&] {
    connection->send({bytes(head), std::make_shared<Bytes>(bytes(body))}, [&](bool succeeded) {
      connection->send({bytes("tail"), nullptr}, [&, succeeded](bool last) { sent.set(succeeded && last); });
    });
  });
  const std::string received = peer.receive(head.size() + body.size() + 4);
  EXPECT_TRUE(received == head + body + "tail");
  EXPECT_TRUE(sent.get());
}

TEST_F(AsioNetworkTest, LittleWaitsInTheKernelForAPeerThatDoesNotRead) {
  auto [peer, connection] = connected(4096);
  // Far more than the watermark and what the peer's window holds, in messages of 64 KiB.
  int taken = 0;
  std::function<void()> sendNext = [&] {
    connection->send({Bytes(65'536), nullptr}, [&](bool succeeded) {
      if (succeeded && ++taken < 100) sendNext();
    });
  };
  runOn(*queue_, [&] { sendNext(); });
  FirstOutcome<int> settled;
  runOn(*queue_, [&] { queue_->postAfter(200ms, [&] { settled.set(taken); }); });
  EXPECT_LT(settled.get(), 20);
  runOn(*queue_, [&] { connection->cancel(); });
}

TEST_F(AsioNetworkTest, AResetFailsEveryoneWhoWaitsOnce) {
  auto [peer, connection] = connected();
  FirstOutcome<std::string> received, state;
  FirstOutcome<bool> lateSend;
  int stateCalls = 0;  // on the queue
  runOn(*queue_, [&] {
    connection->setStateHandler([&](State now, const std::string& reason) {
      EXPECT_EQ(now, State::failed);
      EXPECT_EQ(++stateCalls, 1);
      state.set(reason);
    });
    connection->receive(1, 100, [&](ByteView view, bool isComplete, const auto& failure) {
      EXPECT_TRUE(view.empty() && !isComplete);
      received.set(failure.value_or("none"));
    });
  });
  peer.reset();
  EXPECT_EQ(received.get(), "Connection reset by peer");
  EXPECT_EQ(state.get(), "Connection reset by peer");
  runOn(*queue_, [&] {
    connection->send({bytes("x"), nullptr}, [&](bool succeeded) { lateSend.set(succeeded); });
  });
  EXPECT_FALSE(lateSend.get());
}

TEST_F(AsioNetworkTest, CancelEndsEverythingAndDropsWhatTheHandlersHold) {
  for (const bool isWithinAHandler : {false, true}) {
    auto [peer, connection] = connected();
    const auto token = std::make_shared<int>();
    int calls = 0;
    FirstOutcome<bool> cancelled;
    const auto cancel = [&](Connection ended) {
      ended->cancel();
      ended->cancel();
      ended->receive(1, 1, [&](ByteView, bool, const auto&) { ++calls; });
      ended->send({bytes("x"), nullptr}, [&](bool) { ++calls; });
      connections_.clear();
      cancelled.set(true);
    };
    runOn(*queue_, [&] {
      // The handlers own the connection, as those of a server's client do.
      connection->setStateHandler([&calls, token, connection](State, const std::string&) { ++calls; });
      connection->send({Bytes(20'000'000), nullptr}, [&calls, token, connection](bool) { ++calls; });
      connection->receive(1, 100,
                          [&cancel, token, connection](ByteView, bool, const auto&) { cancel(connection); });
      if (!isWithinAHandler) cancel(std::exchange(connection, nullptr));
    });
    EXPECT_TRUE(peer.send("x") || !isWithinAHandler);
    EXPECT_TRUE(cancelled.get());
    EXPECT_LT(peer.receive(20'000'000).size(), 20'000'000u);
    runOn(*queue_, [&] { connection.reset(); });
    runOn(*queue_, [&] { EXPECT_EQ(calls, 0); });
    EXPECT_EQ(token.use_count(), 1);
  }
}

TEST_F(AsioNetworkTest, AResponseSurvivesUnreadBytesOfTheRequest) {
  listen([](Connection connection) {
    auto* raw = connection.get();
    raw->receive(1, 10, [connection](ByteView, bool, const auto&) {
      connection->send({bytes("HTTP/1.1 405"), nullptr}, [connection](bool) { connection->cancel(); });
    });
  });
  for (int round = 0; round < 50; ++round) {
    LoopbackPeer peer(port_);
    ASSERT_TRUE(peer.send(std::string(50'000, 'p')));
    ASSERT_EQ(peer.receive(100), "HTTP/1.1 405") << round;
  }
}

TEST_F(AsioNetworkTest, LeavesDescriptorsToTheRestOfTheProgramAndRecoversWithoutAny) {
  listenAndGreet();
  {
    const DescriptorLimit limit(100);
    // Half of so few; the peers are gone, which their connections have not noticed.
    for (int i = 0; i < 50; ++i) EXPECT_EQ(greeting(), "hello");
    EXPECT_EQ(greeting(), "");
    runOn(*queue_, [&] {
      listener_->setMakeRoomHandler([&] {
        connections_.front()->cancel();
        connections_.erase(connections_.begin());
        return true;
      });
    });
    for (int i = 0; i < 50; ++i) EXPECT_EQ(greeting(), "hello");
    runOn(*queue_, [&] { EXPECT_EQ(connections_.size(), 50u); });
  }
  {
    LoopbackPeer refused;
    const DescriptorLimit limit(3);
    EXPECT_TRUE(refused.connectTo(port_));
    EXPECT_FALSE(refused.isServedWithin(300ms));
  }
  EXPECT_EQ(greeting(), "hello");
}

TEST_F(AsioNetworkTest, AnExceptionEndsTheNewConnectionAlone) {
  const CapturedLog log;
  bool isFirst = true;
  listen([&](Connection connection) {
    connections_.push_back(connection);
    if (std::exchange(isFirst, false)) throw std::runtime_error("out of memory");
    connection->send({bytes("hello"), nullptr}, [](bool) {});
  });
  EXPECT_EQ(greeting(), "");
  EXPECT_EQ(greeting(), "hello");
  EXPECT_TRUE(log.contains("error [Server] A new connection is ended: out of memory"));
}

TEST_F(AsioNetworkTest, ConnectionsMayOutliveTheirNetwork) {
  auto [peer, connection] = connected();
  runOn(*queue_, [&] { connection->receive(1, 1, [](ByteView, bool, const auto&) {}); });
  connections_.clear();
  network_.reset();
  connection->cancel();
  connection.reset();
  listener_.reset();
  EXPECT_EQ(peer.receive(1), "");
}

}  // namespace
}  // namespace kestrune::linux_platform
