#include "platform/linux/network/NetlinkPathMonitor.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <utility>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/network/NetlinkRoutes.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "platform/linux/reactor/Reactor.h"
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
  explicit Core(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}

  void begin(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler,
             UniqueDescriptor changes, UniqueDescriptor questions);
  void end();
  Reactor& reactor() const { return *reactor_; }

 private:
  void onChange();
  void evaluate();
  void report(Status status);

  const std::shared_ptr<Reactor> reactor_;
  UniqueDescriptor changes_;
  UniqueDescriptor questions_;  // blocking
  DescriptorWatch watch_;
  std::shared_ptr<SerialQueue> queue_;
  std::function<void(Status)> handler_;
  std::optional<NetworkPath> reported_;
  bool isSettling_ = false;
};

void NetlinkPathMonitor::Core::begin(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler,
                                     UniqueDescriptor changes, UniqueDescriptor questions) {
  queue_ = std::move(queue);
  handler_ = std::move(handler);
  if (!changes || !questions) {
    kLog.error("The state of the network cannot be watched");
    return report(Status::satisfied);
  }
  changes_ = std::move(changes);
  questions_ = std::move(questions);
  watch_ = DescriptorWatch(reactor_, changes_.get(), Readiness::readable, [this] { onChange(); });
  evaluate();
}

void NetlinkPathMonitor::Core::onChange() {
  // What the messages say is asked anew, so that one that was lost (ENOBUFS) does no harm.
  std::array<char, 8192> discarded;
  while (recv(changes_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT | MSG_TRUNC) > 0) {
  }
  if (std::exchange(isSettling_, true)) return;
  reactor_->postAfter(kSettling, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || !self->handler_) return;
    self->isSettling_ = false;
    self->evaluate();
  });
}

void NetlinkPathMonitor::Core::evaluate() {
  const auto path = readNetworkPath(questions_.get());
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
  watch_.cancel();
  changes_.reset();
  questions_.reset();
  handler_ = nullptr;
  queue_ = nullptr;
}

NetlinkPathMonitor::NetlinkPathMonitor(std::shared_ptr<Reactor> reactor)
    : core_(std::make_shared<Core>(std::move(reactor))) {}

NetlinkPathMonitor::~NetlinkPathMonitor() {
  // Bound to the queue; after the reactor's end there is nothing left to stop.
  core_->reactor().post([core = core_] { core->end(); });
}

void NetlinkPathMonitor::start(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler) {
  UniqueDescriptor changes(openRouteSocket(kGroups, SOCK_NONBLOCK));
  UniqueDescriptor questions(openRouteSocket(0, 0));
  core_->reactor().post([core = core_, queue = std::move(queue), handler = std::move(handler),
                         changes = std::move(changes), questions = std::move(questions)]() mutable {
    core->begin(std::move(queue), std::move(handler), std::move(changes), std::move(questions));
  });
}

}  // namespace kestrune::linux_platform
