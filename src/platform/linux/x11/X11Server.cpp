#include "platform/linux/x11/X11Server.h"

#include <poll.h>
#include <xcb/xtest.h>

#include <array>
#include <utility>

#include "runtime/Log.h"
#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {

namespace {

constexpr Logger kLog("App");
constexpr int kRetryMilliseconds = 1000;

bool canReadScreen(const X11Connection& connection) {
  constexpr std::uint32_t kAllPlanes = ~0U;
  const auto image = waitForReply(
      connection, xcb_get_image_reply,
      xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, connection.root(), 0, 0, 1, 1, kAllPlanes));
  return image != nullptr && xcb_get_image_data_length(image.get()) > 0;
}

}  // namespace

X11Server::X11Server(X11Address address) : address_(std::move(address)), thread_([this] { run(); }) {
  std::unique_lock guard(lock_);
  answered_.wait(guard, [this] { return state_ != nullptr; });
}

X11Server::~X11Server() {
  interrupt_->interrupt();
  wake_.signal();
  thread_.join();
}

X11Server::SharedState X11Server::state() const {
  const std::lock_guard guard(lock_);
  return state_;
}

void X11Server::refresh(std::function<void(const State&)> done) {
  {
    const std::lock_guard guard(lock_);
    requests_.push_back(std::move(done));
  }
  wake_.signal();
}

void X11Server::publish(State state) {
  auto shared = std::make_shared<const State>(std::move(state));
  const std::lock_guard guard(lock_);
  state_ = std::move(shared);
  answered_.notify_all();
}

X11Server::Requests X11Server::takeRequests() {
  const std::lock_guard guard(lock_);
  return std::exchange(requests_, {});
}

void X11Server::answer(const Requests& requests) const {
  const SharedState known = state();
  for (const auto& request : requests) request(*known);
}

void X11Server::run() {
  nameThread("x11-server");
  std::string lastFailure;
  while (!isStopping()) {
    try {
      const auto connection = X11Connection::open(address_, interrupt_);
      lastFailure.clear();
      follow(*connection);
    } catch (const X11Error& failure) {
      if (isStopping()) break;
      // Once, and not at every try.
      const std::string text = failure.localizedDescription();
      if (std::exchange(lastFailure, text) != text) kLog.error(text);
      publish({{}, false, false, text});
    }
    answer(takeRequests());
    pollfd woken{wake_.fd(), POLLIN, 0};
    poll(&woken, 1, kRetryMilliseconds);
    wake_.reset();
  }
  if (!state()) publish({});
  answer(takeRequests());
}

void X11Server::follow(const X11Connection& connection) {
  const DisplayLayoutWatch watch(connection);
  const WorkAreas workAreas(connection);
  State known;
  known.canReadScreen = canReadScreen(connection);
  known.hasTestInput = connection.extension(xcb_test_id).has_value();
  bool mustRead = true;
  while (!isStopping()) {
    // Reset before draining, or a wake-up in between is lost.
    wake_.reset();
    while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(connection)}) {
      mustRead = mustRead || watch.isChange(*event) || workAreas.isChange(*event);
    }
    // Those that come while the layout is read ask for a later one.
    const Requests requests = takeRequests();
    if (std::exchange(mustRead, false) || !requests.empty()) {
      known.layout = readDisplayLayout(connection);
      workAreas.read(known.layout);
      if (connection.isBroken()) {
        publish({});
        answer(requests);
        connection.failLost();
      }
      publish(known);
      answer(requests);
      continue;  // events may have come along with the answers
    }
    if (connection.isBroken()) connection.failLost();
    std::array<pollfd, 2> sources{{{wake_.fd(), POLLIN, 0}, {connection.descriptor(), POLLIN, 0}}};
    poll(sources.data(), sources.size(), -1);
  }
}

}  // namespace kestrune::linux_platform
