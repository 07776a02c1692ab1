#include "platform/linux/reactor/ReactorThread.h"

#include <utility>

#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {

ReactorThread::ReactorThread(std::string name, std::shared_ptr<const Clock> clock)
    : reactor_(std::make_shared<Reactor>(std::move(name), std::move(clock))), thread_([reactor = reactor_] {
        nameThread(reactor->name());
        reactor->run();
      }) {}

ReactorThread::~ReactorThread() {
  reactor_->stop();
  if (reactor_->isCurrent()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

}  // namespace kestrune::linux_platform
