// Starting and ending the process of the managed Chrome.

#include <exception>
#include <utility>

#include "browser/BrowserConstants.h"
#include "browser/BrowserDisplayService.h"
#include "browser/BrowserFailure.h"
#include "browser/ChromeWindow.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kLog("App");
constexpr int kWindowLooks = 100;
constexpr int kGracefulRounds = 40;  // 2 s
constexpr int kForcedRounds = 20;    // 1 s

}  // namespace

std::optional<Application> BrowserDisplayService::findChrome() const {
  if (!dependencies_.applications || !dependencies_.windows || !dependencies_.files) return {};
  return dependencies_.applications->find(kChromeBundleIdentifier);
}

Application BrowserDisplayService::requireChrome() const {
  auto application = findChrome();
  if (!application) throw browserFailure("Google Chrome is not installed in Applications.");
  return *std::move(application);
}

Task<void> BrowserDisplayService::openChrome(Launch launch) {
  const Generation generation = generation_;
  requireChrome();
  const Lease turn = co_await takeTurn(generation);
  Task<void> launching = launchChrome(std::move(launch), generation);
  co_await launching;
}

/// Within a turn of the caller.
Task<void> BrowserDisplayService::launchChrome(Launch launch, Generation generation) {
  Application application = requireChrome();
  co_await endChrome();
  requireWanted(generation);
  UserFiles& files = *dependencies_.files;
  const std::string profile = chromeProfileDirectory(files);
  files.createDirectory(profile);
  const bool restores = launch.restoreSavedSession && chromeProfileHasSavedSession(files, profile);
  const auto page = restores ? std::nullopt : std::optional(std::move(launch.startURL));
  LaunchConfiguration configuration{
      chromeLaunchArguments(profile, launch.windowBounds, launch.presentation, page), launch.displayID};
  Task<SharedApplication> starting =
      startChrome(std::move(application), std::move(configuration), generation);
  const SharedApplication chrome = co_await starting;
  requireWanted(generation);
  chrome->activate();
  std::exception_ptr failure;
  try {
    Task<void> waiting = waitForChromeWindow(chrome, launch.windowBounds, generation);
    co_await waiting;
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    if (isWanted(generation)) {
      askChromeToEnd();
      forgetEndedChrome();
    }
    std::rethrow_exception(failure);
  }
  kLog.notice("Opened the managed Google Chrome window");
}

Task<BrowserDisplayService::SharedApplication> BrowserDisplayService::startChrome(
    Application application, LaunchConfiguration configuration, Generation generation) {
  const Lease starting = takeLease(starting_);
  auto open = [&](Completion<SharedApplication> done) {
    auto take = [self = shared_from_this(), generation, done = std::move(done)](
                    SharedApplication chrome, const std::exception_ptr& failure) {
      if (!chrome) {
        done.fail(failure ? failure
                          : std::make_exception_ptr(
                                browserFailure("macOS did not return the launched Google Chrome instance.")));
        return;
      }
      self->dependencies_.mainQueue->post([self, chrome = std::move(chrome), generation, done] {
        self->takeStarted(chrome, generation);
        done(chrome);
      });
    };
    dependencies_.applications->open(application, configuration, std::move(take));
  };
  co_return co_await awaitCallback<SharedApplication>(std::move(open));
}

/// One that comes too late has an owner all the same until it has ended.
void BrowserDisplayService::takeStarted(const SharedApplication& chrome, Generation generation) {
  chromeApplication_ = chrome;
  if (!isWanted(generation)) askChromeToEnd();
}

Task<void> BrowserDisplayService::waitForChromeWindow(SharedApplication chrome, Rect frame,
                                                      Generation generation) {
  bool isPlaced = false;
  for (int attempt = 0; attempt < kWindowLooks; ++attempt) {
    const ProcessID process = chrome->processIdentifier();  // changes with a hand-over
    if (const auto window = chromeWindowFrame(dependencies_.windows->onScreenWindows(), process)) {
      if (isOnTarget(*window, frame)) {
        if (!isPlaced) chrome->activate();  // it had no window before that could take the keyboard
        co_return;
      }
      if (!isPlaced && dependencies_.permissions->isTrustedForInput()) {
        isPlaced = dependencies_.windows->placeFirstWindow(process, frame);
      }
    }
    if (attempt == 0) continue;
    co_await sleepFor(kBrowserPause);
    requireWanted(generation);
  }
  throw browserFailure(
      "Google Chrome did not open on the selected display. Close an older Kestrune-managed Chrome window, "
      "confirm Accessibility access, then try again.");
}

// End

/// Once only: a browser takes a second request for an order to leave everything as it is.
void BrowserDisplayService::askChromeToEnd() {
  if (!isManagedChromeRunning() || endingChrome_.lock() == chromeApplication_) return;
  endingChrome_ = chromeApplication_;
  chromeApplication_->terminate();
}

void BrowserDisplayService::forgetEndedChrome() {
  if (!isManagedChromeRunning()) chromeApplication_.reset();
}

Task<void> BrowserDisplayService::terminateManagedChrome() {
  const auto self = shared_from_this();
  supersede();
  co_await endChrome();
}

Task<void> BrowserDisplayService::endChrome() {
  if (!chromeApplication_ && starting_.expired()) co_return;
  askChromeToEnd();
  co_await waitForChromeToEnd(kGracefulRounds);
  if (isManagedChromeRunning()) {
    chromeApplication_->forceTerminate();
    co_await waitForChromeToEnd(kForcedRounds);
  }
  if (isManagedChromeRunning()) kLog.error("Managed Google Chrome did not terminate before shutdown");
  chromeApplication_.reset();
}

/// Also for a Chrome that the system is still starting. Cancelling the task shortens the rounds, not their
/// number.
Task<void> BrowserDisplayService::waitForChromeToEnd(int rounds) {
  for (int round = 0; round < rounds; ++round) {
    if (!isManagedChromeRunning() && starting_.expired()) co_return;
    try {
      co_await sleepFor(kBrowserPause);
    } catch (const CancellationError&) {
    }
  }
}

}  // namespace kestrune
