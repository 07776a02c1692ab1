#include "coordination/BrowserDisplay.h"

#include <utility>

#include "model/KestruneError.h"
#include "platform/Bundle.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
constexpr const char* kMainDisplay = "Main Display";
}  // namespace

BrowserDisplay::BrowserDisplay(std::shared_ptr<BrowserDisplayService> service,
                               std::shared_ptr<ScreenCaptureService> capture,
                               std::shared_ptr<const Displays> displays, ErrorReport& errors, Joints joints)
    : service_(std::move(service)),
      capture_(std::move(capture)),
      displays_(std::move(displays)),
      errors_(errors),
      joints_(std::move(joints)) {}

bool BrowserDisplay::isSelected(std::string_view title) const {
  const auto source = joints_.selectedSource();
  return source && source->title == title && source->kind == CaptureSourceDescriptor::Kind::display;
}

bool BrowserDisplay::isBrowserDisplayShown() const {
  return isActive_ && isSelected(BrowserDisplayService::kDisplayName);
}

/// What was superseded is no failure.
void BrowserDisplay::report(const std::exception_ptr& failure) {
  if (!isCancellation(failure)) errors_.report(failure);
}

bool BrowserDisplay::refuseWithoutChrome(std::string_view message) {
  if (service_->isChromeInstalled()) return false;
  const auto failure = KestruneError::operationFailed(localized(message));
  joints_.tellViewers(errors_.report(std::make_exception_ptr(failure)));
  return true;
}

// The virtual display

Task<bool> BrowserDisplay::prepareSource() {
  if (joints_.displayMode() != StreamDisplayMode::virtualDisplay) co_return true;
  Task<bool> preparation = prepareVirtualDisplaySource();
  co_return co_await preparation;
}

Task<bool> BrowserDisplay::prepareVirtualDisplaySource() {
  if (isEnding_ || !joints_.requirePermissions()) co_return false;
  // One that has gone from the system cannot be recovered; it is made anew.
  if (isActive_ && displays_->bounds(*browserDisplayID_).width <= 0) clearBrowserDisplaySelection();
  if (isBrowserDisplayShown()) {
    std::exception_ptr failure;
    try {
      Task<void> recovery = service_->recoverManagedChrome(joints_.startURL());
      co_await recovery;
    } catch (...) {
      failure = std::current_exception();
    }
    if (failure && !isEnding_ && !isCancellation(failure)) {
      joints_.tellViewers(errors_.report(failure));
    }
    co_return !failure;
  }
  if (refuseWithoutChrome("Google Chrome is required to start the Virtual Mac Display stream.")) {
    co_return false;
  }
  co_await prepareBrowserDisplay();
  if (isBrowserDisplayShown()) co_return true;
  if (!isEnding_) {
    joints_.tellViewers(
        localized("The Mac could not create the Chrome Virtual Mac Display. Check the Mac and retry."));
  }
  co_return false;
}

Task<void> BrowserDisplay::prepareBrowserDisplay() {
  if (!joints_.canChangeSource() || isPreparing_ || !joints_.requirePermissions()) co_return;
  isPreparing_ = true;
  errors_.clear();
  std::exception_ptr failure;
  try {
    Task<DisplayID> preparation = service_->prepareVirtualDisplay(joints_.startURL());
    const DisplayID display = co_await preparation;
    Task<void> selection = selectBrowserDisplay(display);
    co_await selection;
  } catch (...) {
    failure = std::current_exception();
  }
  takeStock();
  if (failure) {
    report(failure);
  } else {
    kLog.notice("Browser display selected as the stream source");
  }
  isPreparing_ = false;
}

Task<void> BrowserDisplay::selectBrowserDisplay(DisplayID display) {
  std::exception_ptr failure;
  try {
    const std::optional<std::string> title = BrowserDisplayService::kDisplayName;
    co_await capture_->selectDisplay(display, title, true, true);
    co_await sleepFor(Duration::zero());  // behind the report of the new source
    if (service_->virtualDisplayID() != display) throw CancellationError();
  } catch (...) {
    failure = std::current_exception();
  }
  if (!failure) co_return;
  clearManagedSelection(display);
  service_->closeBrowserDisplay();
  std::rethrow_exception(failure);
}

void BrowserDisplay::takeStock() {
  browserDisplayID_ = service_->virtualDisplayID();
  isActive_ = browserDisplayID_.has_value();
}

void BrowserDisplay::clearManagedSelection(DisplayID display) {
  if (capture_->clearManagedSelection(display)) joints_.onSourceCleared();
}

void BrowserDisplay::clearBrowserDisplaySelection() {
  if (browserDisplayID_) clearManagedSelection(*browserDisplayID_);
  service_->closeBrowserDisplay();
  takeStock();
}

// The main display

Task<bool> BrowserDisplay::prepareMainDisplaySource() {
  if (refuseWithoutChrome("Google Chrome is required to start the main-display stream.")) co_return false;
  if (isEnding_ || !joints_.canChangeSource() || isPreparing_) co_return false;
  std::exception_ptr failure;
  if (isSelected(kMainDisplay) && service_->isManagedChromeRunning()) {
    try {
      Task<void> recovery = service_->recoverManagedChrome(joints_.startURL());
      co_await recovery;
    } catch (...) {
      failure = std::current_exception();
    }
    if (failure) report(failure);
    co_return !failure;
  }
  isPreparing_ = true;
  errors_.clear();
  clearBrowserDisplaySelection();
  try {
    co_await openMainDisplay();
    kLog.notice("Main display and managed Chrome are ready for streaming");
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure && !isEnding_) {
    service_->closeBrowserDisplay();
    if (!isCancellation(failure)) joints_.tellViewers(errors_.report(failure));
  }
  isPreparing_ = false;
  co_return !failure && isSelected(kMainDisplay);
}

Task<void> BrowserDisplay::openMainDisplay() {
  const DisplayID display = displays_->mainDisplay().value_or(0);
  const std::optional<std::string> title = kMainDisplay;
  co_await capture_->selectDisplay(display, title, false, false);
  if (isEnding_) throw CancellationError();
  Task<DisplayID> opening = service_->openManagedChromeOnMainDisplay(joints_.startURL());
  co_await opening;
}

// What a viewer asks

Task<void> BrowserDisplay::handleOpenChromeRequest() {
  return runForViewer(service_->recoverManagedChrome(joints_.startURL()));
}

Task<void> BrowserDisplay::handleResetBrowserRequest() {
  return runForViewer(service_->resetManagedChrome(joints_.startURL()));
}

Task<void> BrowserDisplay::runForViewer(Task<void> operation) {
  Task<void> body = std::move(operation);
  try {
    co_await body;
  } catch (...) {
    report(std::current_exception());
  }
}

// The end of the program

void BrowserDisplay::end() {
  isEnding_ = true;
  clearBrowserDisplaySelection();
}

Task<void> BrowserDisplay::terminate() {
  service_->closeBrowserDisplay();
  return service_->terminateManagedChrome();
}

}  // namespace kestrune
