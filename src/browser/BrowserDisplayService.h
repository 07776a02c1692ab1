#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "browser/ChromeLaunch.h"
#include "platform/Applications.h"
#include "platform/Displays.h"
#include "platform/PrivacyPermissions.h"
#include "platform/UserFiles.h"
#include "platform/VirtualDisplays.h"
#include "platform/Windows.h"
#include "runtime/SerialQueue.h"
#include "runtime/Task.h"

namespace kestrune {

/// Chrome as a private instance with a profile of its own, on a virtual display that this service makes, or
/// on the main display: starts it, watches that its window arrives there, brings it back, restarts it, ends
/// it.
///
/// Main queue only; make it with std::make_shared. Its tasks keep it alive from their first turn on, and
/// throw KestruneError, what a port throws, or CancellationError once the display that they work for was
/// closed. Chrome outlives the service; a later one finds it again on its display. The virtual display does
/// not.
///
/// One task at a time starts Chrome or takes a running one; others wait for their turn. Opening a display,
/// closing it, and terminateManagedChrome() supersede every task that runs or waits then: at its next step it
/// throws CancellationError and changes nothing any more, and a Chrome that the system was still starting for
/// it is ended when it arrives.
class BrowserDisplayService final : public std::enable_shared_from_this<BrowserDisplayService> {
 public:
  static constexpr const char* kDisplayName = "Tesla Browser Display";

  struct Dependencies {
    std::shared_ptr<SerialQueue> mainQueue;
    std::shared_ptr<const Displays> displays;
    std::shared_ptr<const PrivacyPermissions> permissions;
    // Without one of these Chrome counts as not installed:
    std::shared_ptr<Applications> applications;
    std::shared_ptr<Windows> windows;
    std::shared_ptr<UserFiles> files;
    // Without one of these there are no virtual displays:
    std::shared_ptr<VirtualDisplays> virtualDisplays;
    std::shared_ptr<DisplayArrangement> arrangement;
  };

  explicit BrowserDisplayService(Dependencies dependencies);

  bool isChromeInstalled() const { return findChrome().has_value(); }
  /// The virtual display, while there is one.
  std::optional<DisplayID> virtualDisplayID() const;
  /// A Chrome that this service started or took over has not ended.
  bool isManagedChromeRunning() const { return chromeApplication_ && !chromeApplication_->isTerminated(); }
  bool isRestoringChrome() const { return !restoring_.expired(); }

  // `startURL` is what the user wrote.

  /// Makes the virtual display to the right of all others, unless it is there, and opens Chrome on it. After
  /// a failure all is closed, except that a display that was there before stays if Chrome alone failed.
  Task<DisplayID> prepareVirtualDisplay(std::string startURL);
  /// Closes all, then opens Chrome on the main display. After a failure all is closed.
  Task<DisplayID> openManagedChromeOnMainDisplay(std::string startURL);
  /// Brings the window back, from a new Chrome if none runs. A second call while one runs returns at once.
  Task<void> recoverManagedChrome(std::string startURL);
  /// Restarts Chrome on the start page. A call while a reset runs returns at once: that one does it once more
  /// at its end, with the newest start page.
  Task<void> resetManagedChrome(std::string startURL);
  /// Puts a running window back on its frame.
  void repositionManagedChrome();
  /// Ends everything, without waiting: a Chrome that is still ending holds up the next launch alone.
  void closeBrowserDisplay();
  /// Ends Chrome and waits for that, for three seconds at the most.
  Task<void> terminateManagedChrome();

 private:
  using SharedApplication = std::shared_ptr<RunningApplication>;
  /// Of the browser display that a task works for.
  using Generation = std::uint64_t;
  /// Held for as long as something goes on; goes with a task that is abandoned, on any thread.
  using Lease = std::shared_ptr<void>;
  struct Launch {
    std::string startURL;
    DisplayID displayID = 0;
    Rect windowBounds;
    ChromeWindowPresentation presentation = ChromeWindowPresentation::maximized;
    bool restoreSavedSession = false;
  };

  static Lease takeLease(std::weak_ptr<void>& place);
  Task<Lease> takeTurn(Generation generation);
  bool isWanted(Generation generation) const { return generation == generation_; }
  void requireWanted(Generation generation) const;
  /// Ends, at its next step, every task that began before.
  Generation supersede();
  static std::string requireStartPage(const std::string& startURL);
  void requireManagedDisplay() const;
  std::optional<Rect> targetFrame() const;
  Launch launchOf(std::string page, bool restoreSavedSession) const;
  Task<void> openManagedChrome(std::string page, DisplayID display);
  Task<void> resetOnce(std::string page);
  bool reuseManagedChrome(const Rect& frame);
  SharedApplication adoptableChrome(const Rect& frame);

  // Starting and ending the process (BrowserDisplayChrome.cpp)
  std::optional<Application> findChrome() const;
  Application requireChrome() const;
  Task<void> openChrome(Launch launch);
  Task<void> launchChrome(Launch launch, Generation generation);
  Task<SharedApplication> startChrome(Application application, LaunchConfiguration configuration,
                                      Generation generation);
  void takeStarted(const SharedApplication& chrome, Generation generation);
  Task<void> waitForChromeWindow(SharedApplication chrome, Rect frame, Generation generation);
  void askChromeToEnd();
  void forgetEndedChrome();
  Task<void> endChrome();
  Task<void> waitForChromeToEnd(int rounds);

  // The virtual display (BrowserDisplayVirtual.cpp)
  std::shared_ptr<VirtualDisplay> makeVirtualDisplay() const;
  Task<void> waitForScreen(DisplayID display, Generation generation);
  void placeVirtualDisplay(DisplayID display) const;

  const Dependencies dependencies_;
  std::shared_ptr<VirtualDisplay> virtualDisplay_;
  SharedApplication chromeApplication_;
  std::weak_ptr<RunningApplication> endingChrome_;  // has been asked to end
  std::optional<DisplayID> managedChromeDisplayID_;
  ChromeWindowPresentation managedChromePresentation_ = ChromeWindowPresentation::maximized;
  Generation generation_ = 0;
  std::optional<std::string> waitingReset_;  // the normalized start page of a reset to be done
  std::weak_ptr<void> turn_;                 // a task starts Chrome or takes a running one
  std::weak_ptr<void> starting_;             // the system starts a Chrome
  std::weak_ptr<void> restoring_;
  std::weak_ptr<void> resetting_;
};

}  // namespace kestrune
