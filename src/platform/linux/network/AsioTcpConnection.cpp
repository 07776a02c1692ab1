#include "platform/linux/network/AsioTcpConnection.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <system_error>

#include "platform/linux/network/NetworkContext.h"

namespace kestrune::linux_platform {
namespace {

// Unread bytes at a close make the kernel reset the connection, which can destroy a response on its way.
constexpr int kReadsBeforeClose = 8;
constexpr std::size_t kDiscardedPerRead = 65'536;

using Descriptor = boost::asio::posix::stream_descriptor;

}  // namespace

AsioTcpConnection::AsioTcpConnection(std::shared_ptr<NetworkContext> context, UniqueDescriptor descriptor)
    : context_(std::move(context)), socket_(context_->reactor->context()) {
  socket_.assign(descriptor.get());
  descriptor.release();
  ++context_->openConnections;
}

AsioTcpConnection::~AsioTcpConnection() {
  closeSocket();
}

void AsioTcpConnection::setStateHandler(StateHandler handler) {
  onState_ = isCancelled_ ? nullptr : std::move(handler);
}

void AsioTcpConnection::start() {
  if (isCancelled_ || std::exchange(isStarted_, true)) return;
  context_->reactor->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->isCancelled_ || !self->onState_) return;
    const auto handler = self->onState_;  // it may replace itself
    handler(State::ready, {});
  });
}

void AsioTcpConnection::receive(std::size_t minimum, std::size_t maximum, ReceiveHandler handler) {
  if (isCancelled_) return;
  assert(!receiving_);
  receiving_ =
      Receiving{std::max<std::size_t>(minimum, 1), std::max<std::size_t>(maximum, 1), std::move(handler), {}};
  if (failure_) return postToSelf(&AsioTcpConnection::postFailure);
  waitToRead();
}

void AsioTcpConnection::waitToRead() {
  socket_.async_wait(Descriptor::wait_read,
                     [weak = weak_from_this()](const boost::system::error_code& error) {
                       const auto self = weak.lock();
                       if (self && !error && !self->isCancelled_ && self->receiving_) self->readSome();
                     });
}

void AsioTcpConnection::readSome() {
  auto& buffer = context_->readBuffer;
  auto& request = *receiving_;
  const std::size_t wanted = std::min(buffer.size(), request.maximum - request.gathered.size());
  const ssize_t count = recv(socket_.native_handle(), buffer.data(), wanted, 0);
  if (count < 0) {
    if (errno == EAGAIN || errno == EINTR) return waitToRead();
    return fail(errno);
  }
  const ByteView bytes(buffer.data(), static_cast<std::size_t>(count));
  const bool isComplete = count == 0;
  if (request.gathered.empty() && (isComplete || bytes.size() >= request.minimum)) {
    return deliver(bytes, isComplete, std::nullopt);
  }
  request.gathered.insert(request.gathered.end(), bytes.begin(), bytes.end());
  if (!isComplete && request.gathered.size() < request.minimum) return waitToRead();
  const Bytes gathered = std::move(request.gathered);
  deliver(gathered, isComplete, std::nullopt);
}

void AsioTcpConnection::deliver(ByteView bytes, bool isComplete, const std::optional<std::string>& failure) {
  const auto handler = std::move(receiving_->handler);
  receiving_.reset();
  handler(bytes, isComplete, failure);
}

void AsioTcpConnection::send(GatheredBytes message, SendHandler handler) {
  if (isCancelled_) return;
  assert(!sending_);
  sending_ = Sending{std::move(message), 0, std::move(handler)};
  if (failure_) return postToSelf(&AsioTcpConnection::postFailure);
  if (writeSome()) {
    postToSelf(&AsioTcpConnection::waitToWrite);
  } else if (failure_) {
    postToSelf(&AsioTcpConnection::postFailure);
  } else {
    waitToWrite();
  }
}

/// Waits until the socket takes more, or finishes at once if nothing is left.
void AsioTcpConnection::waitToWrite() {
  if (!sending_) return;  // a failure of the other direction has ended it
  if (sending_->taken == sending_->message.size()) return finishSend(true);
  socket_.async_wait(Descriptor::wait_write,
                     [weak = weak_from_this()](const boost::system::error_code& error) {
                       const auto self = weak.lock();
                       if (!self || error || self->isCancelled_ || !self->sending_) return;
                       self->writeSome();
                       if (self->failure_) return self->postFailure();
                       self->waitToWrite();
                     });
}

/// Whether all bytes are taken; a failure is left in failure_.
bool AsioTcpConnection::writeSome() {
  auto& [message, taken, handler] = *sending_;
  const std::size_t total = message.size();
  while (taken < total) {
    std::array<iovec, 2> pieces{};
    std::size_t count = 0;
    const auto add = [&](const Bytes& piece, std::size_t offset) {
      if (offset >= piece.size()) return;
      // sendmsg() does not write through it.
      pieces.at(count++) = {const_cast<std::uint8_t*>(piece.data()) + offset, piece.size() - offset};
    };
    add(message.head, taken);
    if (message.body) add(*message.body, taken - std::min(taken, message.head.size()));
    msghdr header{};
    header.msg_iov = pieces.data();
    header.msg_iovlen = count;
    const ssize_t sent = sendmsg(socket_.native_handle(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      taken += static_cast<std::size_t>(sent);
    } else if (errno == EAGAIN) {
      return false;
    } else if (errno != EINTR) {
      failure_ = std::generic_category().message(errno);
      return false;
    }
  }
  return true;
}

void AsioTcpConnection::finishSend(bool succeeded) {
  const auto handler = std::move(sending_->handler);
  sending_.reset();
  if (handler) handler(succeeded);
}

void AsioTcpConnection::fail(int error) {
  failure_ = std::generic_category().message(error);
  postFailure();
}

/// Tells everyone who waits that the connection has failed. Each handler may cancel.
void AsioTcpConnection::postFailure() {
  const auto self = shared_from_this();
  const std::string reason = *failure_;
  if (receiving_) deliver({}, false, reason);
  if (!isCancelled_ && sending_) finishSend(false);
  if (isCancelled_) return;
  if (const auto handler = std::exchange(onState_, nullptr)) handler(State::failed, reason);
}

void AsioTcpConnection::postToSelf(void (AsioTcpConnection::*step)()) {
  context_->reactor->post([weak = weak_from_this(), step] {
    const auto self = weak.lock();
    if (self && !self->isCancelled_) (self.get()->*step)();
  });
}

void AsioTcpConnection::finishSending() {
  assert(!sending_);
  // It fails on a connection that is gone, which the receiving side learns.
  if (!isCancelled_) shutdown(socket_.native_handle(), SHUT_WR);
}

void AsioTcpConnection::cancel() {
  if (std::exchange(isCancelled_, true)) return;
  // The handlers may hold the last reference to this connection.
  const auto self = shared_from_this();
  const auto state = std::exchange(onState_, nullptr);
  const auto receiving = std::exchange(receiving_, std::nullopt);
  const auto sending = std::exchange(sending_, std::nullopt);
  closeSocket();
}

void AsioTcpConnection::closeSocket() {
  if (!socket_.is_open()) return;
  for (int reads = 0; reads < kReadsBeforeClose; ++reads) {
    // MSG_TRUNC discards without a buffer (tcp(7)).
    if (recv(socket_.native_handle(), nullptr, kDiscardedPerRead, MSG_TRUNC | MSG_DONTWAIT) <= 0) break;
  }
  boost::system::error_code ignored;
  socket_.close(ignored);
  --context_->openConnections;
}

}  // namespace kestrune::linux_platform
