#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/WebSocketClient.h"
#include "runtime/Error.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// A socket whose far end is the test. Handlers come with a turn of `queue`, as those of a real socket come
/// from another thread.
class FakeWebSocketConnection final : public WebSocketConnection {
 public:
  explicit FakeWebSocketConnection(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}
  ~FakeWebSocketConnection() override { fail("destroyed"); }

  // The far end.
  void deliver(const std::string& text) { arrive({true, Bytes(text.begin(), text.end())}); }
  void deliverBinary(Bytes data) { arrive({false, std::move(data)}); }
  /// The connection is lost.
  void fail(const std::string& reason) {
    if (failure_) return;
    failure_ = std::make_exception_ptr(Failure(reason));
    while (!waitingSends_.empty()) completeSend();
    if (receiveHandler_) finishReceive({});
  }

  /// While false, sends wait for completeSend().
  bool takesSends = true;
  /// The oldest send that waits is taken, or fails if the connection is lost.
  void completeSend() {
    auto send = std::move(waitingSends_.front());
    waitingSends_.pop_front();
    if (!failure_) sent.push_back(std::move(send.message));
    queue_->post([handler = std::move(send.handler), failure = failure_] { handler(failure); });
  }

  std::vector<WebSocketMessage> sent;  // all that was taken
  int pings = 0;
  std::optional<std::uint16_t> closeCode;  // of the first cancel()

  std::size_t waitingSends() const { return waitingSends_.size(); }
  std::vector<std::string> sentTexts() const {
    std::vector<std::string> texts;
    for (const auto& message : sent) {
      if (message.isText) texts.emplace_back(message.data.begin(), message.data.end());
    }
    return texts;
  }
  std::vector<Bytes> sentBinaries() const {
    std::vector<Bytes> binaries;
    for (const auto& message : sent) {
      if (!message.isText) binaries.push_back(message.data);
    }
    return binaries;
  }

  // The near end.
  void sendText(std::string text, SendHandler handler) override {
    send({true, Bytes(text.begin(), text.end())}, std::move(handler));
  }
  void sendBinary(GatheredBytes data, SendHandler handler) override {
    Bytes whole = std::move(data.head);
    if (data.body) whole.insert(whole.end(), data.body->begin(), data.body->end());
    send({false, std::move(whole)}, std::move(handler));
  }
  void receive(ReceiveHandler handler) override {
    if (receiveHandler_) throw std::logic_error("a receive is under way");
    receiveHandler_ = std::move(handler);
    pumpReceive();
  }
  void sendPing() override { ++pings; }
  void cancel(std::uint16_t code) override {
    if (!closeCode) closeCode = code;
    fail("cancelled");
  }

 private:
  struct Send {
    WebSocketMessage message;
    SendHandler handler;
  };

  class Failure final : public Error {
   public:
    explicit Failure(std::string text) : text_(std::move(text)) {}
    std::string localizedDescription() const override { return text_; }

   private:
    std::string text_;
  };

  void send(WebSocketMessage message, SendHandler handler) {
    waitingSends_.push_back({std::move(message), std::move(handler)});
    if (takesSends || failure_) completeSend();
  }
  void arrive(WebSocketMessage message) {
    arrived_.push_back(std::move(message));
    pumpReceive();
  }
  void pumpReceive() {
    if (!receiveHandler_) return;
    if (failure_) {
      finishReceive({});
    } else if (!arrived_.empty()) {
      auto message = std::move(arrived_.front());
      arrived_.pop_front();
      finishReceive(std::move(message));
    }
  }
  void finishReceive(WebSocketMessage message) {
    queue_->post([handler = std::exchange(receiveHandler_, nullptr), message = std::move(message),
                  failure = failure_]() mutable { handler(std::move(message), failure); });
  }

  const std::shared_ptr<SerialQueue> queue_;
  std::exception_ptr failure_;
  std::deque<Send> waitingSends_;
  std::deque<WebSocketMessage> arrived_;
  ReceiveHandler receiveHandler_;
};

/// Its sockets are open at once; what `refuses` says makes the next ones fail.
class FakeWebSocketClient final : public WebSocketClient {
 public:
  explicit FakeWebSocketClient(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  std::optional<std::string> refuses;
  std::vector<std::string> urls;  // all that were asked for, oldest first
  /// Held weakly: the code under test owns its sockets.
  std::shared_ptr<FakeWebSocketConnection> newest() const { return newest_.lock(); }

  std::shared_ptr<WebSocketConnection> connect(const std::string& url, Duration) override {
    urls.push_back(url);
    auto connection = std::make_shared<FakeWebSocketConnection>(queue_);
    if (refuses) connection->fail(*refuses);
    newest_ = connection;
    return connection;
  }

 private:
  const std::shared_ptr<SerialQueue> queue_;
  std::weak_ptr<FakeWebSocketConnection> newest_;
};

}  // namespace kestrune
