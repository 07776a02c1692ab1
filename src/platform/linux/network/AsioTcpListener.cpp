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

#include "platform/linux/network/AsioReactor.h"
#include "platform/linux/network/AsioTcpConnection.h"
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

int openReserve() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

/// What the reactor refers to; the listener itself may be destroyed at any time.
class AsioTcpListener::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::shared_ptr<AsioReactor> reactor, const Address& address)
      : reactor_(std::move(reactor)), address_(address), socket_(reactor_->context()) {}
  ~Core() { close(); }

  void start();
  void close();
  void postState(State state, std::string reason);

  StateHandler onState;
  ConnectionHandler onConnection;
  bool isCancelled = false;

 private:
  int open();
  void waitToAccept();
  void acceptSome();
  bool acceptOne();
  void shedOne();

  const std::shared_ptr<AsioReactor> reactor_;
  const Address address_;
  // On the queue, as the handlers above.
  boost::asio::posix::stream_descriptor socket_;
  int reserve_ = -1;  // given up for a moment to accept and close what cannot be served
  bool isShedding_ = false;
  bool isStarved_ = false;  // from the first refusal to the next connection that is served
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
  const int descriptor = open();
  if (descriptor < 0) return postState(State::failed, std::generic_category().message(-descriptor));
  socket_.assign(descriptor);
  reserve_ = openReserve();
  postState(State::ready, {});
  waitToAccept();
}

void AsioTcpListener::Core::postState(State state, std::string reason) {
  reactor_->post([self = shared_from_this(), state, reason = std::move(reason)] {
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
  if (!isShedding_) return waitToAccept();
  reactor_->postAfter(kBackOff, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->isCancelled) return;
    self->isShedding_ = false;
    self->acceptSome();
  });
}

/// Whether it is worth trying again at once.
bool AsioTcpListener::Core::acceptOne() {
  if (reactor_->openConnections >= connectionLimit()) {
    shedOne();
    return false;
  }
  const int descriptor = accept4(socket_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (descriptor >= 0) {
    isStarved_ = false;
    auto connection = std::make_shared<AsioTcpConnection>(reactor_, descriptor);
    const auto handler = onConnection;
    if (handler) {
      handler(std::move(connection));
    } else {
      connection->cancel();
    }
    return true;
  }
  switch (errno) {
    case EAGAIN:
      return false;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      shedOne();
      return false;
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
      postState(State::failed, std::generic_category().message(errno));
      close();
      return false;
    default:  // what went wrong with one connection that is already gone (accept(2))
      return true;
  }
}

void AsioTcpListener::Core::shedOne() {
  if (!std::exchange(isStarved_, true))
    kLog.error("Too many open connections, refusing new ones for a moment");
  isShedding_ = true;
  if (reserve_ >= 0) ::close(std::exchange(reserve_, -1));
  const int descriptor = accept4(socket_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor >= 0) ::close(descriptor);
  reserve_ = openReserve();
}

void AsioTcpListener::Core::close() {
  boost::system::error_code ignored;
  if (socket_.is_open()) socket_.close(ignored);
  if (reserve_ >= 0) ::close(std::exchange(reserve_, -1));
}

AsioTcpListener::AsioTcpListener(std::shared_ptr<AsioReactor> reactor, const TcpEndpoint& endpoint)
    : core_(std::make_shared<Core>(std::move(reactor), loopbackAddress(endpoint))) {}

AsioTcpListener::~AsioTcpListener() {
  cancel();
}

void AsioTcpListener::setStateHandler(StateHandler handler) {
  core_->onState = core_->isCancelled ? nullptr : std::move(handler);
}

void AsioTcpListener::setNewConnectionHandler(ConnectionHandler handler) {
  core_->onConnection = core_->isCancelled ? nullptr : std::move(handler);
}

void AsioTcpListener::start() {
  core_->start();
}

void AsioTcpListener::cancel() {
  if (std::exchange(core_->isCancelled, true)) return;
  const auto core = core_;
  const auto state = std::exchange(core->onState, nullptr);
  const auto connection = std::exchange(core->onConnection, nullptr);
  core->close();
}

}  // namespace kestrune::linux_platform
