#include "platform/linux/virtualdisplay/XvfbVirtualDisplays.h"

#include <pthread.h>

#include <atomic>
#include <cmath>
#include <exception>
#include <future>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/linux/virtualdisplay/PrivateXServer.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr int kLongestSide = 16384;  // pixels; what capture takes
constexpr double kMillimetersPerInch = 25.4;
constexpr int kDefaultDotsPerInch = 96;
constexpr int kMostDotsPerInch = 1000;

int dotsPerInch(const VirtualDisplayDescriptor& descriptor) {
  if (descriptor.widthInMillimeters <= 0) return kDefaultDotsPerInch;
  const double dots = descriptor.maxPixelsWide / descriptor.widthInMillimeters * kMillimetersPerInch;
  if (!(dots >= 1 && dots <= kMostDotsPerInch)) return kDefaultDotsPerInch;
  return static_cast<int>(std::lround(dots));
}

/// Nothing if such a display cannot be made.
std::optional<PrivateXServer::Screen> screenFor(const VirtualDisplayDescriptor& descriptor,
                                                const VirtualDisplaySettings& settings) {
  if (settings.hiDPI || settings.modes.empty()) return std::nullopt;
  const VirtualDisplayMode& mode = settings.modes.front();
  const auto fits = [](int side, int most) { return side >= 1 && side <= most && side <= kLongestSide; };
  if (!fits(mode.width, descriptor.maxPixelsWide)) return std::nullopt;
  if (!fits(mode.height, descriptor.maxPixelsHigh)) return std::nullopt;
  return PrivateXServer::Screen{mode.width, mode.height, dotsPerInch(descriptor)};
}

}  // namespace

/// One display and its thread, which has the server.
class XvfbVirtualDisplays::Display {
 public:
  Display(std::shared_ptr<DisplaySpace> space, PortsOf portsOf, VirtualDisplayDescriptor descriptor)
      : space_(std::move(space)), portsOf_(std::move(portsOf)), descriptor_(std::move(descriptor)) {}
  ~Display() { end(); }
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  DisplayID id() const { return id_; }

  /// Main queue. Waits until the server was started, and not until it is ready.
  bool start(const VirtualDisplaySettings& settings) {
    const auto screen = screenFor(descriptor_, settings);
    if (!screen) {
      kLog.error("The virtual display cannot have this size or resolution.");
      return false;
    }
    if (std::exchange(isUsed_, true) || isStopping_) return false;
    std::promise<bool> started;
    auto outcome = started.get_future();
    try {
      thread_ = std::thread([this, screen = *screen, started = std::move(started)]() mutable {
        run(screen, std::move(started));
      });
    } catch (const std::system_error& failure) {
      kLog.error(std::string("There is no thread left for a virtual display: ") + failure.what());
      isOver_ = true;
      return false;
    }
    return outcome.get();
  }

  /// Takes the display out of the space and makes the thread end. Main queue.
  void stop() {
    {
      const std::lock_guard guard(lock_);
      isStopping_ = true;
    }
    space_->remove(id_);
    stop_.signal();
  }
  /// Nothing of it runs, nor will.
  bool isOver() const { return isOver_ || (isStopping_ && !isUsed_); }
  void end() {
    stop();
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run(const PrivateXServer::Screen& screen, std::promise<bool> started) {
    pthread_setname_np(pthread_self(), "virtual-display");
    std::optional<PrivateXServer> server;
    try {
      server.emplace(screen);
    } catch (const std::system_error& failure) {
      kLog.error(std::string("The virtual display cannot be started: ") + failure.what());
    }
    started.set_value(server.has_value());
    if (server) {
      serve(*server);
      server.reset();
    }
    isOver_ = true;
  }

  void serve(PrivateXServer& server) {
    bool isUp = false;
    try {
      if (server.waitUntilReady(stop_)) {
        server.furnish();
        isUp = showUntilEnd(server);
        server.waitForClients();
      }
    } catch (const std::exception&) {
      kLog.error("The virtual display cannot be used: " +
                 kestrune::localizedDescription(std::current_exception()));
      return;
    }
    {
      const std::lock_guard guard(lock_);
      if (isStopping_) return;
    }
    const auto failure = server.failure();
    kLog.error(std::string(isUp ? "The virtual display ended by itself: " : "The virtual display failed: ") +
               failure.value_or("no answer in time"));
  }

  /// Whether it was shown.
  bool showUntilEnd(PrivateXServer& server) {
    // Its connections end before the server does.
    const auto ports = portsOf_(std::make_shared<X11Server>(server.address()));
    const bool isShown = join(server, ports);
    server.waitForEnd(stop_);
    space_->remove(id_);
    return isShown;
  }

  bool join(const PrivateXServer& server, const ServerPorts& ports) {
    const std::lock_guard guard(lock_);
    if (!isStopping_) space_->add(id_, ports, server.environment());
    return !isStopping_;
  }

  const std::shared_ptr<DisplaySpace> space_;
  const PortsOf portsOf_;
  const VirtualDisplayDescriptor descriptor_;
  const DisplayID id_ = DisplaySpace::newDisplayID();
  const EventFd stop_;
  bool isUsed_ = false;  // main queue
  // Guards isStopping_, which the main queue alone changes; held over DisplaySpace::add(), so that none comes
  // after stop().
  std::mutex lock_;
  bool isStopping_ = false;
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

/// What the caller holds. The thread outlives it until the server has ended.
class XvfbVirtualDisplays::Handle final : public VirtualDisplay {
 public:
  explicit Handle(std::shared_ptr<Display> display) : display_(std::move(display)) {}
  ~Handle() override { display_->stop(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  DisplayID displayID() const override { return display_->id(); }
  bool applySettings(const VirtualDisplaySettings& settings) override { return display_->start(settings); }

 private:
  const std::shared_ptr<Display> display_;
};

XvfbVirtualDisplays::XvfbVirtualDisplays(std::shared_ptr<DisplaySpace> space, PortsOf portsOf)
    : space_(std::move(space)), portsOf_(std::move(portsOf)) {}

XvfbVirtualDisplays::~XvfbVirtualDisplays() {
  for (const auto& display : displays_) display->stop();
  for (const auto& display : displays_) display->end();
}

bool XvfbVirtualDisplays::areAvailable() const {
  return PrivateXServer::isInstalled();
}

std::shared_ptr<VirtualDisplay> XvfbVirtualDisplays::create(const VirtualDisplayDescriptor& descriptor) {
  std::erase_if(displays_, [](const std::shared_ptr<Display>& each) { return each->isOver(); });
  displays_.push_back(std::make_shared<Display>(space_, portsOf_, descriptor));
  return std::make_shared<Handle>(displays_.back());
}

}  // namespace kestrune::linux_platform
