#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "browser/BrowserDisplayService.h"
#include "capture/ScreenCaptureService.h"
#include "coordination/ErrorReport.h"
#include "model/CaptureSource.h"
#include "model/StreamSettings.h"
#include "platform/Displays.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns whether the virtual display of the managed browser is what capture would show, and readies the source
/// of a stream. Main queue only; its tasks need an owner that keeps it alive.
class BrowserDisplay {
 public:
  struct Joints {
    std::function<bool()> requirePermissions;
    std::function<bool()> canChangeSource;
    std::function<std::optional<CaptureSourceDescriptor>()> selectedSource;
    std::function<StreamDisplayMode()> displayMode;
    /// As the user wrote it.
    std::function<std::string()> startURL;
    /// The capture service has given its selection up: there is no source.
    std::function<void()> onSourceCleared;
    /// Shows viewers that may start a stream, and the user, why that failed.
    std::function<void(const std::string& message)> tellViewers;
  };

  BrowserDisplay(std::shared_ptr<BrowserDisplayService> service,
                 std::shared_ptr<ScreenCaptureService> capture, std::shared_ptr<const Displays> displays,
                 ErrorReport& errors, Joints joints);

  /// The virtual display exists and is the selected source.
  const Observable<bool>& isActive() const { return isActive_; }
  /// A preparation runs.
  const Observable<bool>& isPreparing() const { return isPreparing_; }

  // The source of a stream: whether it is selected and ready. A failure becomes state, and viewers are told.

  /// That of the display mode. On the main display nothing has to be ready.
  Task<bool> prepareSource();
  Task<bool> prepareVirtualDisplaySource();
  Task<bool> prepareMainDisplaySource();

  // What a viewer asks; a failure is reported to the user.

  Task<void> handleOpenChromeRequest();
  Task<void> handleResetBrowserRequest();

  // The end of the program

  /// Closes the browser and its display, for good.
  void end();
  /// Waits for the end of Chrome.
  Task<void> terminate();

 private:
  Task<void> prepareBrowserDisplay();
  Task<void> openMainDisplay();
  Task<void> selectBrowserDisplay(DisplayID display);
  Task<void> runForViewer(Task<void> operation);
  void clearBrowserDisplaySelection();
  void clearManagedSelection(DisplayID display);
  void takeStock();
  bool isSelected(std::string_view title) const;
  bool isBrowserDisplayShown() const;
  bool refuseWithoutChrome(std::string_view message);
  void report(const std::exception_ptr& failure);

  const std::shared_ptr<BrowserDisplayService> service_;
  const std::shared_ptr<ScreenCaptureService> capture_;
  const std::shared_ptr<const Displays> displays_;
  ErrorReport& errors_;
  const Joints joints_;
  Published<bool> isActive_;
  Published<bool> isPreparing_;
  std::optional<DisplayID> browserDisplayID_;
  bool isEnding_ = false;
};

}  // namespace kestrune
