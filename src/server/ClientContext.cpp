#include "server/ClientContext.h"

#include <cassert>
#include <utility>

namespace kestrune {

ClientContext::ClientContext(ClientID id_, std::shared_ptr<TcpConnection> connection_)
    : id(id_), connection(std::move(connection_)) {}

WebSocketPeer* ClientContext::webSocketPeer() {
  const auto* peer = std::get_if<std::unique_ptr<WebSocketPeer>>(&state_);
  return peer ? peer->get() : nullptr;
}

WebSocketPeer::Viewer* ClientContext::viewer() {
  auto* peer = webSocketPeer();
  return peer && peer->viewer ? &*peer->viewer : nullptr;
}

std::shared_ptr<ViewerSession> ClientContext::session() {
  const auto* present = viewer();
  return present ? present->session : nullptr;
}

bool ClientContext::receives() const {
  return !std::holds_alternative<Answering>(state_) && !std::holds_alternative<Ended>(state_);
}

GivesWay ClientContext::givesWay() const {
  if (std::holds_alternative<ReadingRequest>(state_)) return GivesWay::first;
  if (const auto* answering = std::get_if<Answering>(&state_)) return answering->givesWay;
  if (const auto* closing = std::get_if<ClosingHandshake>(&state_)) return closing->givesWay;
  const auto* peer = std::get_if<std::unique_ptr<WebSocketPeer>>(&state_);
  return peer && !(*peer)->viewer ? GivesWay::first : GivesWay::never;
}

std::optional<Duration> ClientContext::deadline() const {
  if (const auto* answering = std::get_if<Answering>(&state_)) return answering->deadline;
  if (const auto* closing = std::get_if<ClosingHandshake>(&state_)) return closing->deadline;
  return std::nullopt;
}

AudioPoll& ClientContext::beginPoll(std::uint64_t after, Duration deadline, Duration batchDeadline) {
  assert(readingRequest());
  return state_.emplace<AudioPoll>(after, deadline, batchDeadline);
}

WebSocketPeer& ClientContext::upgrade() {
  assert(readingRequest());
  auto peer = std::make_unique<WebSocketPeer>();
  peer->received = std::move(readingRequest()->received);
  return *state_.emplace<std::unique_ptr<WebSocketPeer>>(std::move(peer));
}

void ClientContext::beginAnswer(Duration deadline) {
  assert(readingRequest() || audioPoll());
  state_.emplace<Answering>(Answering{deadline, readingRequest() ? GivesWay::last : GivesWay::never});
}

std::optional<GatheredBytes> ClientContext::beginClosing(GatheredBytes closeFrame, Duration deadline) {
  assert(webSocketPeer());
  const bool isSending = webSocketPeer()->outbound.isSending();
  auto& closing =
      state_.emplace<ClosingHandshake>(ClosingHandshake{deadline, givesWay(), std::move(closeFrame)});
  return isSending ? std::nullopt : std::exchange(closing.waitingFrame, std::nullopt);
}

void ClientContext::end() {
  state_.emplace<Ended>();
  connection->setStateHandler({});
  connection->cancel();
}

std::optional<GatheredBytes> ClientContext::takeCloseFrame() {
  auto* closing = std::get_if<ClosingHandshake>(&state_);
  return closing ? std::exchange(closing->waitingFrame, std::nullopt) : std::nullopt;
}

bool ClientContext::finishSending() {
  auto* closing = std::get_if<ClosingHandshake>(&state_);
  if (!closing) return false;
  if (closing->hasPeerFinished) return true;
  closing->hasFinished = true;
  connection->finishSending();
  return false;
}

bool ClientContext::finishReceiving() {
  if (!receives()) return false;  // it still gets the answer that is on its way
  auto* closing = std::get_if<ClosingHandshake>(&state_);
  if (!closing || closing->hasFinished) return true;
  closing->hasPeerFinished = true;
  return false;
}

}  // namespace kestrune
