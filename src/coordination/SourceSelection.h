#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "capture/ScreenCaptureService.h"
#include "coordination/ErrorReport.h"
#include "model/CaptureSource.h"
#include "platform/Displays.h"
#include "platform/PrivacyPermissions.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns what capture would show, and selects it at launch. Main queue only; its tasks need an owner that
/// keeps it alive.
class SourceSelection {
 public:
  struct Joints {
    /// Whether the source may be changed now.
    std::function<bool()> canChangeSource;
    /// Before the new source is published, if it differs.
    std::function<void()> onReplaced;
    /// After every report of the capture service, also of the same source.
    std::function<void()> onReported;
  };

  SourceSelection(std::shared_ptr<ScreenCaptureService> capture, std::shared_ptr<const Displays> displays,
                  std::shared_ptr<const PrivacyPermissions> permissions, ErrorReport& errors, Joints joints);

  const Observable<std::optional<CaptureSourceDescriptor>>& selectedSource() const { return selectedSource_; }
  bool isDisplay() const;

  /// Selects the main display, once in the life of the process, if no source is selected.
  Task<void> selectDefaultDisplayIfNeeded();
  /// The capture service reports its source.
  void handleSourceChanged(std::optional<CaptureSourceDescriptor> source);

 private:
  const std::shared_ptr<ScreenCaptureService> capture_;
  const std::shared_ptr<const Displays> displays_;
  const std::shared_ptr<const PrivacyPermissions> permissions_;
  ErrorReport& errors_;
  const Joints joints_;
  Published<std::optional<CaptureSourceDescriptor>> selectedSource_;
  bool didSelectDefaultDisplay_ = false;
};

}  // namespace kestrune
