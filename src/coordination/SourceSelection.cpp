#include "coordination/SourceSelection.h"

#include <exception>
#include <string>
#include <utility>

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

SourceSelection::SourceSelection(std::shared_ptr<ScreenCaptureService> capture,
                                 std::shared_ptr<const Displays> displays,
                                 std::shared_ptr<const PrivacyPermissions> permissions, ErrorReport& errors,
                                 Joints joints)
    : capture_(std::move(capture)),
      displays_(std::move(displays)),
      permissions_(std::move(permissions)),
      errors_(errors),
      joints_(std::move(joints)) {}

bool SourceSelection::isDisplay() const {
  const auto& source = selectedSource_.get();
  return source && source->kind == CaptureSourceDescriptor::Kind::display;
}

Task<void> SourceSelection::selectDefaultDisplayIfNeeded() {
  if (didSelectDefaultDisplay_ || selectedSource_->has_value() || !joints_.canChangeSource()) co_return;
  didSelectDefaultDisplay_ = true;
  if (!permissions_->isScreenCaptureAllowed()) {
    kLog.info("Skipped automatic display selection because screen capture access is unavailable");
    co_return;
  }
  const DisplayID display = displays_->mainDisplay().value_or(0);
  const std::optional<std::string> title = "Main Display";
  try {
    co_await capture_->selectDisplay(display, title, false, false);
    kLog.notice("Main display selected automatically");
  } catch (...) {
    errors_.report(std::current_exception());
  }
}

void SourceSelection::handleSourceChanged(std::optional<CaptureSourceDescriptor> source) {
  if (source != selectedSource_.get()) joints_.onReplaced();
  selectedSource_ = std::move(source);
  joints_.onReported();
}

}  // namespace kestrune
