#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Network.h"

namespace kestrune {

/// A connection whose peer is the test: it decides what arrives, in which pieces, and when a send is taken.
class FakeTcpConnection final : public TcpConnection, public std::enable_shared_from_this<FakeTcpConnection> {
 public:
  explicit FakeTcpConnection(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  // The peer's side. What it does takes effect with the next turn of the queue.
  /// In reads of at most `pieceSize` bytes.
  void deliver(std::string_view bytes, std::size_t pieceSize = std::string_view::npos) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(pieceSize, bytes.size()))) {
      arriving_.push_back({std::string(bytes.substr(0, pieceSize)), false, std::nullopt});
    }
    pumpReceive();
  }
  void deliverEnd() { arrive({{}, true, std::nullopt}); }
  void deliverWithEnd(std::string bytes) { arrive({std::move(bytes), true, std::nullopt}); }
  void failReceive(std::string reason) { arrive({{}, false, std::move(reason)}); }
  void changeState(State state, const std::string& reason) {
    queue_->post([self = shared_from_this(), state, reason] {
      if (const auto handler = self->stateHandler_) handler(state, reason);
    });
  }

  /// While false, sends stay in flight until completeSend().
  bool takesSends = true;
  void completeSend(bool succeeded = true) {
    if (succeeded) sent += inFlight;
    inFlight.clear();
    finishSend(succeeded);
  }

  /// Whether the peer ends its side when the server does.
  bool closesInReturn = true;

  std::string sent;      // all that was taken
  std::string inFlight;  // the send that is not taken yet
  bool finished = false;
  bool cancelled = false;

  // The server's side.
  void setStateHandler(StateHandler handler) override { stateHandler_ = std::move(handler); }
  void start() override {}
  void receive(std::size_t minimum, std::size_t maximum, ReceiveHandler handler) override {
    if (receiveHandler_ || cancelled || minimum != 1) throw std::logic_error("bad receive");
    maximum_ = maximum;
    receiveHandler_ = std::move(handler);
    pumpReceive();
  }
  void send(GatheredBytes message, SendHandler handler) override {
    if (sendHandler_ || finished || cancelled)
      throw std::logic_error("a send is in flight, or none may follow");
    inFlight.assign(message.head.begin(), message.head.end());
    if (message.body) inFlight.append(message.body->begin(), message.body->end());
    sendHandler_ = std::move(handler);
    if (takesSends) completeSend();
  }
  void finishSending() override {
    if (sendHandler_ || cancelled) throw std::logic_error("bad end of sending");
    finished = true;
    if (closesInReturn) deliverEnd();
  }
  void cancel() override {
    cancelled = true;
    stateHandler_ = nullptr;
    receiveHandler_ = nullptr;
    sendHandler_ = nullptr;
  }

 private:
  struct Arrival {
    std::string bytes;
    bool isComplete;
    std::optional<std::string> failure;
  };

  void arrive(Arrival arrival) {
    arriving_.push_back(std::move(arrival));
    pumpReceive();
  }

  void pumpReceive() {
    queue_->post([self = shared_from_this()] {
      if (!self->receiveHandler_ || self->arriving_.empty()) return;
      auto& next = self->arriving_.front();
      Arrival arrival = next;
      if (next.bytes.size() > self->maximum_) {
        arrival = {next.bytes.substr(0, self->maximum_), false, std::nullopt};
        next.bytes.erase(0, self->maximum_);
      } else {
        self->arriving_.pop_front();
      }
      const auto handler = std::exchange(self->receiveHandler_, nullptr);
      handler({reinterpret_cast<const std::uint8_t*>(arrival.bytes.data()), arrival.bytes.size()},
              arrival.isComplete, arrival.failure);
    });
  }

  void finishSend(bool succeeded) {
    queue_->post([self = shared_from_this(), succeeded] {
      if (const auto handler = std::exchange(self->sendHandler_, nullptr)) handler(succeeded);
    });
  }

  const std::shared_ptr<SerialQueue> queue_;
  std::deque<Arrival> arriving_;
  std::size_t maximum_ = 0;
  StateHandler stateHandler_;
  ReceiveHandler receiveHandler_;
  SendHandler sendHandler_;
};

/// Listeners become ready with the next turn of the queue, unless the test wants otherwise.
class FakeNetwork final : public Network {
 public:
  explicit FakeNetwork(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  TcpListener::State outcome = TcpListener::State::ready;  // of the next start()
  std::string reason;
  std::vector<TcpEndpoint> endpoints;  // all that were asked for
  std::size_t listenersCancelled = 0;

  /// A peer that connects; to be called while a listener is up.
  std::shared_ptr<FakeTcpConnection> connect() {
    auto connection = std::make_shared<FakeTcpConnection>(queue_);
    connectionHandler_(connection);
    return connection;
  }
  bool isListening() const { return static_cast<bool>(connectionHandler_); }
  void changeListenerState(TcpListener::State state, const std::string& text) {
    queue_->post([this, state, text] {
      if (const auto handler = stateHandler_) handler(state, text);
    });
  }

  std::shared_ptr<SerialQueue> queue() const override { return queue_; }
  std::unique_ptr<TcpListener> createListener(const TcpEndpoint& requiredLocalEndpoint) override {
    endpoints.push_back(requiredLocalEndpoint);
    return std::make_unique<Listener>(*this);
  }

 private:
  struct Listener final : TcpListener {
    explicit Listener(FakeNetwork& network_) : network(network_) {}
    void setStateHandler(StateHandler handler) override { network.stateHandler_ = std::move(handler); }
    void setNewConnectionHandler(ConnectionHandler handler) override {
      network.connectionHandler_ = std::move(handler);
    }
    void setMakeRoomHandler(MakeRoomHandler) override {}
    void start() override {
      if (network.outcome != State::setup) network.changeListenerState(network.outcome, network.reason);
    }
    void cancel() override {
      ++network.listenersCancelled;
      network.stateHandler_ = nullptr;
      network.connectionHandler_ = nullptr;
    }
    FakeNetwork& network;
  };

  const std::shared_ptr<SerialQueue> queue_;
  TcpListener::StateHandler stateHandler_;
  TcpListener::ConnectionHandler connectionHandler_;
};

}  // namespace kestrune
