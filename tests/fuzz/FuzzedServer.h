#pragma once

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/Log.h"
#include "server/StreamingServer.h"
#include "support/FakeBundle.h"
#include "support/FakeNetwork.h"
#include "support/ManualTime.h"
#include "support/WebSocketPeer.h"

namespace kestrune {

/// A started server in memory that serves one input after the other.
class FuzzedServer {
 public:
  static FuzzedServer& shared() {
    static FuzzedServer server;
    return server;
  }

  std::shared_ptr<FakeTcpConnection> connect() { return network_->connect(); }
  std::shared_ptr<FakeTcpConnection> connectViewer() {
    auto connection = connect();
    connection->deliver(kUpgradeRequest + textFrame(authMessage("token")));
    time_->runReady();
    connection->sent.clear();
    return connection;
  }
  void run() { time_->runReady(); }
  /// Ends the connection, and everything that it set going.
  void finish(const std::shared_ptr<FakeTcpConnection>& connection) {
    connection->failReceive("over");
    time_->advance(std::chrono::minutes(3));
  }

 private:
  struct Tokens final : ViewerTokenSource {
    std::string token() override { return "token"; }
  };

  struct Input final : RemoteInput {
    RemoteTapResult onRemoteTap(double, double) override { return RemoteTapResult::clicked; }
    RemoteTapResult onRemoteText(const std::string&) override { return RemoteTapResult::clicked; }
    RemoteTapResult onRemotePlayPause() override { return RemoteTapResult::clicked; }
  };

  /// The server ends a connection whose handler throws, and goes on; here that is a find.
  struct FailureSink final : LogSink {
    void write(LogLevel, std::string_view, std::string_view, std::string_view message) override {
      if (message.starts_with("A viewer connection is ended: ")) std::abort();
    }
  };

  FuzzedServer() {
    setLogSink(std::make_shared<FailureSink>());
    server_->setHandlers(std::make_shared<Input>(), std::make_shared<ViewerRequests>());
    server_->start([](std::exception_ptr) {});
    time_->runReady();
  }

  const std::shared_ptr<ManualTime> time_ = ManualTime::make();
  const std::shared_ptr<FakeNetwork> network_ = std::make_shared<FakeNetwork>(time_->makeQueue());
  const std::shared_ptr<StreamingServer> server_ = std::make_shared<StreamingServer>(
      network_, std::make_shared<FakeBundle>(), std::make_shared<Tokens>(),
      std::make_shared<AudioChunkStore>(), std::make_shared<VideoPacketStore>(), time_);
};

}  // namespace kestrune
