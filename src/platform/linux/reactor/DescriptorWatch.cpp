#include "platform/linux/reactor/DescriptorWatch.h"

#include <boost/asio/posix/stream_descriptor.hpp>
#include <system_error>
#include <utility>

#include "platform/linux/reactor/Reactor.h"

namespace kestrune::linux_platform {
namespace {

using Descriptor = boost::asio::posix::stream_descriptor;

}  // namespace

/// On the queue, but for its construction, and its end once the reactor has ended.
class DescriptorWatch::State : public std::enable_shared_from_this<State> {
 public:
  State(Reactor& reactor, int descriptor, Readiness readiness, std::function<void()> handler)
      : descriptor_(reactor.context()), readiness_(readiness), handler_(std::move(handler)) {
    boost::system::error_code failure;
    descriptor_.assign(descriptor, failure);
    if (failure) throw std::system_error(failure, "watch");
  }
  ~State() { cancel(); }

  void start() {
    const bool isEither = readiness_ == Readiness::readableOrWritable;
    if (isEither || readiness_ == Readiness::readable) wait(Descriptor::wait_read);
    if (isEither || readiness_ == Readiness::writable) wait(Descriptor::wait_write);
    if (readiness_ == Readiness::failed) wait(Descriptor::wait_error);
  }
  void cancel() {
    if (descriptor_.is_open()) descriptor_.release();
  }

 private:
  void wait(Descriptor::wait_type type) {
    if (!descriptor_.is_open()) return;
    descriptor_.async_wait(type, [weak = weak_from_this(), type](const boost::system::error_code& error) {
      const auto self = weak.lock();
      if (!self || error || !self->descriptor_.is_open()) return;
      self->handler_();
      self->wait(type);
    });
  }

  Descriptor descriptor_;
  const Readiness readiness_;
  const std::function<void()> handler_;
};

DescriptorWatch::DescriptorWatch(std::shared_ptr<Reactor> reactor, int descriptor, Readiness readiness,
                                 std::function<void()> handler)
    : reactor_(std::move(reactor)),
      state_(std::make_shared<State>(*reactor_, descriptor, readiness, std::move(handler))) {
  reactor_->post([weak = std::weak_ptr(state_)] {
    if (const auto state = weak.lock()) state->start();
  });
}

DescriptorWatch& DescriptorWatch::operator=(DescriptorWatch&& other) noexcept {
  cancel();
  reactor_ = std::move(other.reactor_);
  state_ = std::move(other.state_);
  return *this;
}

void DescriptorWatch::cancel() {
  const auto state = std::exchange(state_, nullptr);
  if (!state) return;
  // After the reactor's end nothing else touches the state.
  if (!reactor_->runAndWait([&] { state->cancel(); })) state->cancel();
}

}  // namespace kestrune::linux_platform
