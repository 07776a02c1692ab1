// The virtual display: making it, and finding its place among the others.

#include <cmath>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include "browser/BrowserConstants.h"
#include "browser/BrowserDisplayService.h"
#include "browser/BrowserFailure.h"
#include "browser/FarRightOrigin.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kLog("App");
constexpr int kScreenLooks = 40;
constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

/// Halves away from zero; nothing outside the range.
std::optional<std::int32_t> rounded(double value) {
  const double whole = std::round(value);
  using Limits = std::numeric_limits<std::int32_t>;
  if (!(whole >= Limits::min() && whole <= Limits::max())) return {};
  return static_cast<std::int32_t>(whole);
}

}  // namespace

std::optional<DisplayID> BrowserDisplayService::virtualDisplayID() const {
  return virtualDisplay_ ? std::optional(virtualDisplay_->displayID()) : std::nullopt;
}

Task<DisplayID> BrowserDisplayService::prepareVirtualDisplay(std::string startURL) {
  const auto self = shared_from_this();
  std::string page = requireStartPage(startURL);
  const bool isNew = !virtualDisplay_;
  if (isNew) virtualDisplay_ = makeVirtualDisplay();
  const Generation generation = supersede();
  const DisplayID display = virtualDisplay_->displayID();  // the object itself must not outlive its closing
  bool isDisplayReady = false;
  std::exception_ptr failure;
  try {
    co_await waitForScreen(display, generation);
    if (isNew) {
      placeVirtualDisplay(display);
      co_await waitForScreen(display, generation);  // the list of screens changes with the new origin
    }
    isDisplayReady = true;
    Task<void> opening = openManagedChrome(std::move(page), display);
    co_await opening;
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    if (isWanted(generation) && (isNew || !isDisplayReady)) closeBrowserDisplay();
    std::rethrow_exception(failure);
  }
  if (isNew) kLog.notice("Created the experimental browser display");
  co_return display;
}

std::shared_ptr<VirtualDisplay> BrowserDisplayService::makeVirtualDisplay() const {
  const auto& displays = dependencies_.virtualDisplays;
  if (!displays || !dependencies_.arrangement || !displays->areAvailable()) {
    throw browserFailure(
        "This macOS version does not provide the virtual-display runtime used by Browser Display.");
  }
  auto display = displays->create({.name = kDisplayName,
                                   .maxPixelsWide = kWidth,
                                   .maxPixelsHigh = kHeight,
                                   .widthInMillimeters = 508,  // 96 pixels per inch
                                   .heightInMillimeters = 286,
                                   .vendorID = 0x4B53,
                                   .productID = 0x5452,
                                   .serialNumber = 1});
  const VirtualDisplaySettings settings{false, {{kWidth, kHeight, 60}}};
  if (!display->applySettings(settings)) {
    throw browserFailure("macOS could not configure the 1920 × 1080 virtual display.");
  }
  return display;
}

Task<void> BrowserDisplayService::waitForScreen(DisplayID display, Generation generation) {
  for (int attempt = 0; attempt < kScreenLooks; ++attempt) {
    for (const DisplayID active : dependencies_.displays->activeDisplays()) {
      if (active == display) co_return;
    }
    if (attempt == 0) continue;
    co_await sleepFor(kBrowserPause);
    requireWanted(generation);
  }
  throw browserFailure("The virtual display was created but did not become available to macOS.");
}

void BrowserDisplayService::placeVirtualDisplay(DisplayID display) const {
  std::vector<Rect> frames;
  for (const DisplayID other : dependencies_.displays->activeDisplays()) {
    if (other != display) frames.push_back(dependencies_.displays->bounds(other));
  }
  const auto origin = farRightOrigin(frames);
  const auto x = origin ? rounded(origin->x) : std::nullopt;
  const auto y = origin ? rounded(origin->y) : std::nullopt;
  if (!x || !y) throw browserFailure("macOS could not determine a safe position for the virtual display.");
  const auto configuration = dependencies_.arrangement->begin();
  if (!configuration) throw browserFailure("macOS could not begin positioning the virtual display.");
  if (!configuration->setOrigin(display, *x, *y)) {
    throw browserFailure("macOS could not position the virtual display.");
  }
  if (!configuration->complete()) {
    throw browserFailure("macOS could not place the virtual display to the right of the other displays.");
  }
  kLog.notice("Placed the experimental browser display at the far right");
}

}  // namespace kestrune
