#include "platform/linux/windows/X11Windows.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrune::linux_platform {
namespace {

constexpr Duration kRetryDelay = std::chrono::seconds(1);
/// Less than kAnswerLimit, so that a window that does not follow is a false and not a silence.
constexpr std::chrono::milliseconds kPlacingLimit{200};
constexpr int kMostTold = 16;

int pixel(double value) {
  return static_cast<int>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

/// What a process shows as its first window: before others one on screen, then one that is no dialog.
const ClientWindow* firstWindow(const std::vector<ClientWindow>& windows, ProcessID process) {
  const ClientWindow* first = nullptr;
  const auto rank = [](const ClientWindow& window) {
    return (window.isOnScreen ? 0 : window.isMinimized ? 2 : 4) + (window.isDialog ? 1 : 0);
  };
  for (const ClientWindow& each : windows) {
    if (each.owner != process || each.owner == 0 || each.layer != 0 || each.isDesktop) continue;
    if (!each.isOnScreen && !each.isMinimized) continue;
    if (first == nullptr || rank(each) < rank(*first)) first = &each;
  }
  return first;
}

}  // namespace

/// One connection, and what work on it needs. Confined to the thread.
struct X11Windows::Session {
  explicit Session(std::unique_ptr<X11Connection> opened)
      : connection(std::move(opened)), atoms(*connection) {}

  WindowTree tree() const { return WindowTree(*connection, atoms); }
  WindowPlacement placement(const WindowTree& tree) const {
    return WindowPlacement(*connection, atoms, tree, std::chrono::steady_clock::now() + kPlacingLimit);
  }

  const std::unique_ptr<X11Connection> connection;
  const WindowAtoms atoms;
};

X11Windows::X11Windows(std::shared_ptr<const X11Server> server)
    : server_(std::move(server)), queue_(std::make_unique<ThreadQueue>("x11-windows")) {
  queue_->post([this] { connect(); });
}

X11Windows::~X11Windows() {
  interrupt_->interrupt();
}

void X11Windows::connect() {
  bool isConnected = true;
  try {
    session_ = std::make_unique<Session>(X11Connection::open(server_->address(), interrupt_));
  } catch (const X11Error&) {
    isConnected = false;  // the X11Server says why
    if (!interrupt_->isInterrupted()) queue_->postAfter(kRetryDelay, [this] { connect(); });
  }
  const std::lock_guard guard(lock_);
  state_ = isConnected ? State::connected : State::lost;
}

/// Whether the connection stood until the end.
bool X11Windows::run(const Work& work) {
  if (!session_) return false;
  work(*session_);
  // Errors of windows that have gone meanwhile.
  while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(*session_->connection)}) continue;
  if (!session_->connection->isBroken()) return true;
  session_.reset();
  const std::lock_guard guard(lock_);
  state_ = State::lost;
  queue_->postAfter(kRetryDelay, [this] { connect(); });
  return false;
}

template <class Result>
std::optional<Result> X11Windows::ask(std::function<Result(const Session&)> question) {
  const auto answer = std::make_shared<std::optional<Result>>();
  std::unique_lock guard(lock_);
  if (isAsked_ || state_ == State::lost) return std::nullopt;
  isAsked_ = true;
  queue_->post([this, answer, question = std::move(question)] {
    std::optional<Result> result;
    const bool isWhole = run([&](const Session& session) { result = question(session); });
    const std::lock_guard answering(lock_);
    if (isWhole) *answer = std::move(result);
    isAsked_ = false;
    answered_.notify_all();
  });
  if (!answered_.wait_for(guard, kAnswerLimit, [this] { return !isAsked_; })) return std::nullopt;
  return std::move(*answer);
}

void X11Windows::tell(Work work) {
  const std::lock_guard guard(lock_);
  if (told_ >= kMostTold || state_ == State::lost) return;
  ++told_;
  queue_->post([this, work = std::move(work)] {
    run(work);
    const std::lock_guard done(lock_);
    --told_;
  });
}

std::vector<WindowInfo> X11Windows::onScreenWindows() {
  const Point origin = server_->state()->layout.globalOrigin();
  return ask<std::vector<WindowInfo>>([origin](const Session& session) {
           std::vector<WindowInfo> shown;
           for (const ClientWindow& each : session.tree().windows()) {
             if (!each.isOnScreen || each.isDesktop) continue;
             const PixelRect area = shrunk(each.area, each.invisible);
             const Rect bounds{area.x - origin.x, area.y - origin.y, static_cast<double>(area.width),
                               static_cast<double>(area.height)};
             shown.push_back({each.owner, each.layer, bounds});
           }
           return shown;
         })
      .value_or(std::vector<WindowInfo>());
}

bool X11Windows::placeFirstWindow(ProcessID process, const Rect& frame) {
  const DisplayLayout layout = server_->state()->layout;
  const Point origin = layout.globalOrigin();
  const PixelRect area{pixel(frame.x + origin.x), pixel(frame.y + origin.y), pixel(frame.width),
                       pixel(frame.height)};
  const bool isWholeWorkArea =
      std::any_of(layout.displays.begin(), layout.displays.end(),
                  [&](const X11Display& display) { return layout.visibleBounds(display) == frame; });
  return ask<bool>([=](const Session& session) {
           const WindowTree tree = session.tree();
           const auto windows = tree.windows();
           const ClientWindow* window = firstWindow(windows, process);
           return window != nullptr && session.placement(tree).place(*window, area, isWholeWorkArea);
         })
      .value_or(false);
}

void X11Windows::activate(ProcessID process) {
  tell([process](const Session& session) {
    const WindowTree tree = session.tree();
    const auto windows = tree.windows();
    if (const auto* window = firstWindow(windows, process)) session.placement(tree).activate(*window);
  });
}

void X11Windows::unhide(ProcessID process) {
  tell([process](const Session& session) {
    const WindowTree tree = session.tree();
    for (const ClientWindow& each : tree.windows()) {
      if (each.owner == process && each.isMinimized) session.placement(tree).show(each);
    }
  });
}

}  // namespace kestrune::linux_platform
