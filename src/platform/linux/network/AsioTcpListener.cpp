#include "platform/linux/network/AsioTcpListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/network/AsioTcpConnection.h"
#include "platform/linux/network/NetworkContext.h"
#include "runtime/Error.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("Server");
constexpr int kBacklog = 512;
// With little waiting in the kernel, stale media waits in a queue of ours, where it can be dropped.
constexpr int kNotSentLowWatermarkBytes = 128 * 1024;
// A flood of new connections must leave the ones that work their turns.
constexpr int kAcceptsPerTurn = 16;
constexpr auto kBackOff = std::chrono::milliseconds(100);
constexpr Duration kShortageLogPeriod = std::chrono::minutes(1);
// Descriptors that connections leave to the rest of the program.
constexpr rlim_t kDescriptorsForOthers = 128;

class EndpointError final : public Error {
 public:
  std::string localizedDescription() const override { return "Only a loopback address can be listened on"; }
};

struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

Address loopbackAddress(const TcpEndpoint& endpoint) {
  Address address;
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET, endpoint.host.c_str(), &v4.sin_addr) == 1 &&
      (ntohl(v4.sin_addr.s_addr) >> 24) == IN_LOOPBACKNET) {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(endpoint.port);
    std::copy_n(reinterpret_cast<const char*>(&v4), sizeof v4, reinterpret_cast<char*>(&address.storage));
    address.length = sizeof v4;
  } else if (inet_pton(AF_INET6, endpoint.host.c_str(), &v6.sin6_addr) == 1 &&
             IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr)) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(endpoint.port);
    std::copy_n(reinterpret_cast<const char*>(&v6), sizeof v6, reinterpret_cast<char*>(&address.storage));
    address.length = sizeof v6;
  } else {
    throw EndpointError();
  }
  return address;
}

std::size_t connectionLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return SIZE_MAX;
  return limit.rlim_cur > 2 * kDescriptorsForOthers ? limit.rlim_cur - kDescriptorsForOthers
                                                    : limit.rlim_cur / 2;
}

}  // namespace

/// What the reactor refers to; the listener itself may be destroyed at any time.
class AsioTcpListener::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::shared_ptr<NetworkContext> context, const Address& address)
      : context_(std::move(context)), address_(address), socket_(context_->reactor->context()) {}
  ~Core() { close(); }

  void start();
  void close();
  void postState(State state, std::string reason);

  StateHandler onState;
  ConnectionHandler onConnection;
  MakeRoomHandler onRoomNeeded;
  bool isCancelled = false;

 private:
  int open();
  void waitToAccept();
  void acceptSome();
  bool acceptOne();
  int acceptDescriptor();
  void serve(UniqueDescriptor descriptor);
  bool handleAcceptFailure(int error);
  bool restoreReserve();
  bool makeRoom();

  const std::shared_ptr<NetworkContext> context_;
  const Address address_;
  // On the queue, as the handlers above.
  boost::asio::posix::stream_descriptor socket_;
  UniqueDescriptor reserve_;  // given up to accept a connection when there is no other descriptor
  bool isRefusing_ = false;   // until the next turn
  Duration nextShortageLogAt_{};
  bool isStarted_ = false;
};

/// The descriptor, or a negative errno.
int AsioTcpListener::Core::open() {
  const int descriptor = socket(address_.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return -errno;
  // A restart may bind over connections that linger in TIME_WAIT; a live listener still refuses it.
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Accepted sockets inherit these.
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(descriptor, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kNotSentLowWatermarkBytes,
             sizeof kNotSentLowWatermarkBytes);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address_.storage), address_.length) == 0 &&
      listen(descriptor, kBacklog) == 0) {
    return descriptor;
  }
  const int error = errno;
  ::close(descriptor);
  return -error;
}

void AsioTcpListener::Core::start() {
  if (isCancelled || std::exchange(isStarted_, true)) return;
  const int result = open();
  if (result < 0) return postState(State::failed, std::generic_category().message(-result));
  UniqueDescriptor descriptor(result);
  boost::system::error_code failure;
  socket_.assign(descriptor.get(), failure);
  if (failure) return postState(State::failed, failure.message());
  descriptor.release();
  restoreReserve();
  postState(State::ready, {});
  waitToAccept();
}

void AsioTcpListener::Core::postState(State state, std::string reason) {
  context_->reactor->post([self = shared_from_this(), state, reason = std::move(reason)] {
    if (self->isCancelled || !self->onState) return;
    const auto handler = self->onState;  // it may replace itself
    handler(state, reason);
  });
}

void AsioTcpListener::Core::waitToAccept() {
  socket_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                     [weak = weak_from_this()](const boost::system::error_code& error) {
                       const auto self = weak.lock();
                       if (self && !error && !self->isCancelled) self->acceptSome();
                     });
}

void AsioTcpListener::Core::acceptSome() {
  for (int accepted = 0; accepted < kAcceptsPerTurn; ++accepted) {
    if (!acceptOne()) break;
    if (isCancelled) return;  // by the handler
  }
  if (!socket_.is_open()) return;
  if (!isRefusing_) return waitToAccept();
  context_->reactor->postAfter(kBackOff, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->isCancelled) return;
    self->isRefusing_ = false;
    self->acceptSome();
  });
}

/// Whether it is worth trying again at once.
bool AsioTcpListener::Core::acceptOne() {
  const int result = acceptDescriptor();
  UniqueDescriptor descriptor(result);
  const bool hasReserve = restoreReserve();
  if (!descriptor) return handleAcceptFailure(-result);
  const bool isShort = !hasReserve || context_->openConnections >= connectionLimit();
  isRefusing_ = isShort && !makeRoom();
  if (isRefusing_) {
    descriptor.reset();
  } else {
    serve(std::move(descriptor));
  }
  restoreReserve();
  return !isRefusing_;
}

/// A descriptor, or a negative errno. The system looks for a free descriptor before it looks for a peer, so
/// that only the reserve shows whether one waits.
int AsioTcpListener::Core::acceptDescriptor() {
  const auto accept = [this] {
    const int descriptor = accept4(socket_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    return descriptor < 0 ? -errno : descriptor;
  };
  const int result = accept();
  if ((result != -EMFILE && result != -ENFILE) || !reserve_) return result;
  reserve_.reset();
  return accept();
}

void AsioTcpListener::Core::serve(UniqueDescriptor descriptor) {
  std::shared_ptr<AsioTcpConnection> connection;
  try {
    connection = std::make_shared<AsioTcpConnection>(context_, std::move(descriptor));
    const auto handler = onConnection;  // it may replace itself
    if (handler) return handler(connection);
  } catch (...) {
    kLog.error("A new connection is ended: " + localizedDescription(std::current_exception()));
  }
  if (connection) connection->cancel();
}

bool AsioTcpListener::Core::handleAcceptFailure(int error) {
  switch (error) {
    case EAGAIN:
      return false;
    case EMFILE:
    case ENFILE:
      makeRoom();  // for the reserve
      restoreReserve();
      isRefusing_ = true;
      return false;
    case ENOBUFS:
    case ENOMEM:
      isRefusing_ = true;
      return false;
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
      postState(State::failed, std::generic_category().message(error));
      close();
      return false;
    default:  // what went wrong with one connection that is already gone (accept(2))
      return true;
  }
}

bool AsioTcpListener::Core::restoreReserve() {
  if (!reserve_ && socket_.is_open()) reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return static_cast<bool>(reserve_);
}

bool AsioTcpListener::Core::makeRoom() {
  const auto handler = onRoomNeeded;
  const bool hasRoom = handler && handler();
  const auto now = systemClock()->continuousNow();
  if (now >= nextShortageLogAt_) {
    nextShortageLogAt_ = now + kShortageLogPeriod;
    kLog.error(hasRoom ? "Too many open connections: the oldest without a token give way to new ones"
                       : "Too many open connections, refusing new ones for a moment");
  }
  return hasRoom;
}

void AsioTcpListener::Core::close() {
  boost::system::error_code ignored;
  if (socket_.is_open()) socket_.close(ignored);
  reserve_.reset();
}

AsioTcpListener::AsioTcpListener(std::shared_ptr<NetworkContext> context, const TcpEndpoint& endpoint)
    : core_(std::make_shared<Core>(std::move(context), loopbackAddress(endpoint))) {}

AsioTcpListener::~AsioTcpListener() {
  cancel();
}

void AsioTcpListener::setStateHandler(StateHandler handler) {
  core_->onState = core_->isCancelled ? nullptr : std::move(handler);
}

void AsioTcpListener::setNewConnectionHandler(ConnectionHandler handler) {
  core_->onConnection = core_->isCancelled ? nullptr : std::move(handler);
}

void AsioTcpListener::setMakeRoomHandler(MakeRoomHandler handler) {
  core_->onRoomNeeded = core_->isCancelled ? nullptr : std::move(handler);
}

void AsioTcpListener::start() {
  core_->start();
}

void AsioTcpListener::cancel() {
  if (std::exchange(core_->isCancelled, true)) return;
  const auto core = core_;
  const auto state = std::exchange(core->onState, nullptr);
  const auto connection = std::exchange(core->onConnection, nullptr);
  const auto makeRoom = std::exchange(core->onRoomNeeded, nullptr);
  core->close();
}

}  // namespace kestrune::linux_platform
