#include "platform/linux/network/NetlinkPathMonitor.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <utility>

#include "platform/linux/network/AsioNetwork.h"
#include "platform/linux/network/AsioReactor.h"
#include "platform/linux/network/NetlinkRoutes.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr unsigned kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
// A cable that is plugged in gives a burst of messages.
constexpr auto kSettling = std::chrono::milliseconds(100);

}  // namespace

/// What the reactor refers to. Everything on its queue.
class NetlinkPathMonitor::Core : public std::enable_shared_from_this<Core> {
 public:
  explicit Core(std::shared_ptr<AsioReactor> reactor)
      : reactor_(std::move(reactor)), changes_(reactor_->context()), questions_(reactor_->context()) {}

  void begin(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler, int changes,
             int questions);
  void end();
  AsioReactor& reactor() const { return *reactor_; }

 private:
  void waitForChange();
  void onChange();
  void evaluate();
  void report(Status status);

  const std::shared_ptr<AsioReactor> reactor_;
  boost::asio::posix::stream_descriptor changes_;
  boost::asio::posix::stream_descriptor questions_;  // blocking; never waited on
  std::shared_ptr<SerialQueue> queue_;
  std::function<void(Status)> handler_;
  std::optional<NetworkPath> reported_;
  bool isSettling_ = false;
};

void NetlinkPathMonitor::Core::begin(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler,
                                     int changes, int questions) {
  queue_ = std::move(queue);
  handler_ = std::move(handler);
  if (changes < 0 || questions < 0) {
    kLog.error("The state of the network cannot be watched");
    if (changes >= 0) close(changes);
    if (questions >= 0) close(questions);
    return report(Status::satisfied);
  }
  changes_.assign(changes);
  questions_.assign(questions);
  waitForChange();
  evaluate();
}

void NetlinkPathMonitor::Core::waitForChange() {
  changes_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                      [weak = weak_from_this()](const boost::system::error_code& error) {
                        const auto self = weak.lock();
                        if (self && !error && self->handler_) self->onChange();
                      });
}

void NetlinkPathMonitor::Core::onChange() {
  // What the messages say is asked anew, so that one that was lost (ENOBUFS) does no harm.
  std::array<char, 8192> discarded;
  while (recv(changes_.native_handle(), discarded.data(), discarded.size(), MSG_DONTWAIT | MSG_TRUNC) > 0) {
  }
  waitForChange();
  if (std::exchange(isSettling_, true)) return;
  reactor_->postAfter(kSettling, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || !self->handler_) return;
    self->isSettling_ = false;
    self->evaluate();
  });
}

void NetlinkPathMonitor::Core::evaluate() {
  const auto path = readNetworkPath(questions_.native_handle());
  if (!path) {
    if (!reported_) report(Status::satisfied);
    return;
  }
  if (reported_ == path) return;
  reported_ = path;
  report(path->isUsable() ? Status::satisfied : Status::unsatisfied);
}

void NetlinkPathMonitor::Core::report(Status status) {
  queue_->post([handler = handler_, status] { handler(status); });
}

void NetlinkPathMonitor::Core::end() {
  boost::system::error_code ignored;
  changes_.close(ignored);
  questions_.close(ignored);
  handler_ = nullptr;
  queue_ = nullptr;
}

NetlinkPathMonitor::NetlinkPathMonitor(const AsioNetwork& network)
    : core_(std::make_shared<Core>(network.reactor())) {}

NetlinkPathMonitor::~NetlinkPathMonitor() {
  // Bound to the queue; after the reactor's end there is nothing left to stop.
  core_->reactor().post([core = core_] { core->end(); });
}

void NetlinkPathMonitor::start(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler) {
  const int changes = openRouteSocket(kGroups, SOCK_NONBLOCK);
  const int questions = openRouteSocket(0, 0);
  core_->reactor().post([core = core_, queue = std::move(queue), handler = std::move(handler), changes,
                         questions] { core->begin(queue, handler, changes, questions); });
}

}  // namespace kestrune::linux_platform
