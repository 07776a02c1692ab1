#include "browser/BrowserDisplayService.h"

#include <exception>
#include <utility>

#include "browser/BrowserConstants.h"
#include "browser/BrowserFailure.h"
#include "browser/ChromeWindow.h"
#include "browser/StartPage.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
constexpr const char* kNoDisplay = "The managed Chrome display is not available.";
}  // namespace

BrowserDisplayService::BrowserDisplayService(Dependencies dependencies)
    : dependencies_(std::move(dependencies)) {}

// What tasks ask for

BrowserDisplayService::Lease BrowserDisplayService::takeLease(std::weak_ptr<void>& place) {
  Lease lease = std::make_shared<char>();
  place = lease;
  return lease;
}

Task<BrowserDisplayService::Lease> BrowserDisplayService::takeTurn(Generation generation) {
  while (!turn_.expired()) {
    co_await sleepFor(kBrowserPause);
    requireWanted(generation);
  }
  co_return takeLease(turn_);
}

void BrowserDisplayService::requireWanted(Generation generation) const {
  if (!isWanted(generation)) throw CancellationError();
}

std::string BrowserDisplayService::requireStartPage(const std::string& startURL) {
  auto page = normalizedBrowserURL(startURL);
  if (!page) throw browserFailure("Enter a valid http or https browser address.");
  return *std::move(page);
}

void BrowserDisplayService::requireManagedDisplay() const {
  if (!managedChromeDisplayID_) throw browserFailure(kNoDisplay);
}

/// Nothing too for a display that has gone from the system: its frame is empty, and no window could be on it.
std::optional<Rect> BrowserDisplayService::targetFrame() const {
  if (!managedChromeDisplayID_) return {};
  const Rect frame = managedChromePresentation_ == ChromeWindowPresentation::kiosk
                         ? dependencies_.displays->bounds(*managedChromeDisplayID_)
                         : dependencies_.displays->visibleBounds(*managedChromeDisplayID_);
  return frame.width > 0 && frame.height > 0 ? std::optional(frame) : std::nullopt;
}

BrowserDisplayService::Launch BrowserDisplayService::launchOf(std::string page,
                                                              bool restoreSavedSession) const {
  const auto frame = targetFrame();
  if (!frame) throw browserFailure(kNoDisplay);
  return {std::move(page), *managedChromeDisplayID_, *frame, managedChromePresentation_, restoreSavedSession};
}

BrowserDisplayService::Generation BrowserDisplayService::supersede() {
  waitingReset_.reset();
  return ++generation_;
}

// Opening and closing

Task<void> BrowserDisplayService::openManagedChrome(std::string page, DisplayID display) {
  managedChromeDisplayID_ = display;
  managedChromePresentation_ = ChromeWindowPresentation::maximized;
  Task<void> opening = openChrome(launchOf(std::move(page), true));
  co_await opening;
}

Task<DisplayID> BrowserDisplayService::openManagedChromeOnMainDisplay(std::string startURL) {
  const auto self = shared_from_this();
  std::string page = requireStartPage(startURL);
  closeBrowserDisplay();
  const Generation generation = generation_;
  const auto display = dependencies_.displays->mainDisplay();
  if (!display) throw browserFailure(kNoDisplay);
  std::exception_ptr failure;
  try {
    Task<void> opening = openManagedChrome(std::move(page), *display);
    co_await opening;
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    if (isWanted(generation)) closeBrowserDisplay();
    std::rethrow_exception(failure);
  }
  kLog.notice("Opened managed Chrome on the main display");
  co_return *display;
}

void BrowserDisplayService::closeBrowserDisplay() {
  supersede();
  if (!virtualDisplay_ && !chromeApplication_ && !managedChromeDisplayID_) return;
  askChromeToEnd();
  forgetEndedChrome();
  virtualDisplay_.reset();
  managedChromeDisplayID_.reset();
  managedChromePresentation_ = ChromeWindowPresentation::maximized;
  kLog.notice("Closed the experimental browser display");
}

// Bringing back

Task<void> BrowserDisplayService::recoverManagedChrome(std::string startURL) {
  const auto self = shared_from_this();
  if (isRestoringChrome()) {
    kLog.notice("Ignored duplicate managed Chrome recovery request");
    co_return;
  }
  const Lease restoring = takeLease(restoring_);
  requireManagedDisplay();
  std::string page = requireStartPage(startURL);
  const Generation generation = generation_;
  // A Chrome that is being started is waited for, and then reused.
  const Lease turn = co_await takeTurn(generation);
  Launch launch = launchOf(std::move(page), true);
  if (reuseManagedChrome(launch.windowBounds)) co_return;
  Task<void> launching = launchChrome(std::move(launch), generation);
  co_await launching;
}

/// A Chrome that is about to end is neither reused nor replaced by another one: a launch waits for its end.
bool BrowserDisplayService::reuseManagedChrome(const Rect& frame) {
  if (!isManagedChromeRunning()) {
    auto found = adoptableChrome(frame);
    if (!found) return false;
    chromeApplication_ = std::move(found);
  } else if (endingChrome_.lock() == chromeApplication_) {
    return false;
  }
  chromeApplication_->unhide();
  chromeApplication_->activate();
  if (dependencies_.permissions->isTrustedForInput()) {
    dependencies_.windows->placeFirstWindow(chromeApplication_->processIdentifier(), frame);
  }
  kLog.notice("Reused the existing managed Chrome window");
  return true;
}

BrowserDisplayService::SharedApplication BrowserDisplayService::adoptableChrome(const Rect& frame) {
  if (!findChrome()) return nullptr;
  for (const auto& window : dependencies_.windows->onScreenWindows()) {
    if (!isBrowserWindow(window) || !isOnTarget(*window.bounds, frame)) continue;
    auto found = dependencies_.applications->running(window.owner, kChromeBundleIdentifier);
    if (found && !found->isTerminated()) return found;
  }
  return nullptr;
}

Task<void> BrowserDisplayService::resetManagedChrome(std::string startURL) {
  const auto self = shared_from_this();
  requireManagedDisplay();
  waitingReset_ = requireStartPage(startURL);
  if (!resetting_.expired()) co_return;
  const Lease resetting = takeLease(resetting_);
  std::exception_ptr failure;
  while (waitingReset_) {
    failure = nullptr;
    try {
      Task<void> reset = resetOnce(*std::exchange(waitingReset_, std::nullopt));
      co_await reset;
    } catch (...) {
      failure = std::current_exception();
    }
    const bool isCancelled = co_await isTaskCancelled();
    if (isCancelled) waitingReset_.reset();
  }
  if (failure) std::rethrow_exception(failure);
}

Task<void> BrowserDisplayService::resetOnce(std::string page) {
  Task<void> opening = openChrome(launchOf(std::move(page), false));
  co_await opening;
}

void BrowserDisplayService::repositionManagedChrome() {
  const auto frame = targetFrame();
  if (!frame || !isManagedChromeRunning() || !dependencies_.permissions->isTrustedForInput()) return;
  dependencies_.windows->placeFirstWindow(chromeApplication_->processIdentifier(), *frame);
}

}  // namespace kestrune
