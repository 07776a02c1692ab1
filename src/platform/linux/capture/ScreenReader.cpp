#include "platform/linux/capture/ScreenReader.h"

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>

#include <utility>

#include "runtime/Log.h"

namespace kestrune::linux_platform {

namespace {

constexpr Logger kLog("Capture");
constexpr std::uint32_t kAllPlanes = ~0U;
constexpr std::size_t kPartAlignment = 64;

std::size_t bytesOf(const PixelRect& part) {
  const auto bytes = static_cast<std::size_t>(part.width) * static_cast<std::size_t>(part.height) * 4;
  return (bytes + kPartAlignment - 1) / kPartAlignment * kPartAlignment;
}

}  // namespace

ScreenReader::ScreenReader(const X11Address& address, std::shared_ptr<X11Interrupt> interrupt)
    : connection_(X11Connection::open(address, std::move(interrupt))),
      layoutWatch_(*connection_),
      pointerWatch_(*connection_) {
  requireReadablePixels();
  subscribe();
}

ScreenReader::~ScreenReader() = default;

void ScreenReader::requireReadablePixels() const {
  const xcb_setup_t* setup = xcb_get_setup(connection());
  const xcb_screen_t& screen = connection().screen();
  int bitsPerPixel = 0;
  for (auto formats = xcb_setup_pixmap_formats_iterator(setup); formats.rem > 0; xcb_format_next(&formats)) {
    if (formats.data->depth == screen.root_depth) bitsPerPixel = formats.data->bits_per_pixel;
  }
  bool isBgrx = false;
  for (auto depths = xcb_screen_allowed_depths_iterator(&screen); depths.rem > 0; xcb_depth_next(&depths)) {
    for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem > 0;
         xcb_visualtype_next(&visuals)) {
      if (visuals.data->visual_id != screen.root_visual) continue;
      isBgrx = visuals.data->red_mask == 0xff0000 && visuals.data->green_mask == 0xff00 &&
               visuals.data->blue_mask == 0xff;
    }
  }
  if (bitsPerPixel != 32 || !isBgrx || setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST) {
    throw X11Error("The X display's pixel format (depth " + std::to_string(screen.root_depth) +
                   ") cannot be captured; it needs a depth of 24.");
  }
}

void ScreenReader::subscribe() {
  const auto damage = connection().extension(xcb_damage_id);
  const auto fixes = connection().extension(xcb_xfixes_id);
  if (!damage || !fixes) throw X11Error("The X display lacks the DAMAGE or XFIXES extension.");
  const auto fixesVersion = waitForReply(connection(), xcb_xfixes_query_version_reply,
                                         xcb_xfixes_query_version(connection(), 4, 0));
  const auto damageVersion = waitForReply(connection(), xcb_damage_query_version_reply,
                                          xcb_damage_query_version(connection(), 1, 1));
  if (!fixesVersion || !damageVersion) failLost();
  damageEvent_ = damage->firstEvent;
  cursorEvent_ = fixes->firstEvent + XCB_XFIXES_CURSOR_NOTIFY;
  xcb_xfixes_select_cursor_input(connection(), connection().root(),
                                 XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);

  // Each event names an area that was not damaged before: no question has to be asked to learn what to read,
  // and drawing over and over in one place while a picture waits for its time tells nothing and costs
  // nothing.
  damageId_ = xcb_generate_id(connection());
  const auto refused = connection().check(xcb_damage_create_checked(
      connection(), damageId_, connection().root(), XCB_DAMAGE_REPORT_LEVEL_DELTA_RECTANGLES));
  if (refused) throw X11Error("The X display refuses to be watched: " + describe(refused.get()) + ".");
  if (connection().isBroken()) failLost();
}

void ScreenReader::readEvents() {
  while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(connection())}) handle(*event);
  if (connection().isBroken()) failLost();
}

bool ScreenReader::readQueuedEvents() {
  bool hasRead = false;
  while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_queued_event(connection())}) {
    handle(*event);
    hasRead = true;
  }
  return hasRead;
}

void ScreenReader::handle(const xcb_generic_event_t& event) {
  const int type = event.response_type & 0x7f;
  if (type == damageEvent_ + XCB_DAMAGE_NOTIFY) {
    const xcb_rectangle_t& area = reinterpret_cast<const xcb_damage_notify_event_t&>(event).area;
    const PixelRect watched = intersection(watched_, {area.x, area.y, area.width, area.height});
    if (watched.width == 0) return;
    damage_.add(watched);
    ++damageReports_;
  } else if (type == cursorEvent_ || pointerWatch_.isMotion(event)) {
    cursorMayHaveChanged_ = true;
  } else if (layoutWatch_.isChange(event)) {
    layoutChanged_ = true;
  } else if (type == 0) {
    kLog.debug("X error: " + describe(&reinterpret_cast<const xcb_generic_error_t&>(event)));
  }
}

bool ScreenReader::takeLayoutChange() {
  return std::exchange(layoutChanged_, false);
}

DisplayLayout ScreenReader::layout() const {
  DisplayLayout present = readDisplayLayout(connection());
  if (connection().isBroken()) failLost();
  return present;
}

void ScreenReader::requireAnswer() const {
  if (!connection().roundTrip()) failLost();
}

void ScreenReader::forgetDamage() {
  damage_.clear();
  xcb_damage_subtract(connection(), damageId_, XCB_NONE, XCB_NONE);
}

bool ScreenReader::refreshCursor() {
  cursorMayHaveChanged_ = false;
  const bool changed = cursor_.refresh(connection());
  if (connection().isBroken()) failLost();
  return changed;
}

bool ScreenReader::read(const std::vector<PixelRect>& parts, const PartHandler& onPart) {
  std::size_t total = 0;
  for (const PixelRect& part : parts) total += bytesOf(part);
  if (canShare_ && (!segment_ || segment_->size() < total)) {
    segment_.reset();
    segment_ = SharedSegment::create(connection(), total);
    if (connection().isBroken()) failLost();
    canShare_ = segment_ != nullptr;
    if (!canShare_) kLog.notice("The X server shares no memory: the screen is read over its socket.");
  }
  const bool isComplete = canShare_ ? readShared(parts, onPart) : readOverSocket(parts, onPart);
  if (!isComplete && connection().isBroken()) failLost();
  return isComplete;
}

bool ScreenReader::readShared(const std::vector<PixelRect>& parts, const PartHandler& onPart) {
  std::vector<xcb_shm_get_image_cookie_t> cookies;
  cookies.reserve(parts.size());
  std::size_t offset = 0;
  for (const PixelRect& part : parts) {
    cookies.push_back(
        xcb_shm_get_image(connection(), connection().root(), static_cast<std::int16_t>(part.x),
                          static_cast<std::int16_t>(part.y), static_cast<std::uint16_t>(part.width),
                          static_cast<std::uint16_t>(part.height), kAllPlanes, XCB_IMAGE_FORMAT_Z_PIXMAP,
                          segment_->id(), static_cast<std::uint32_t>(offset)));
    offset += bytesOf(part);
  }
  offset = 0;
  bool isComplete = true;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const auto reply = waitForReply(connection(), xcb_shm_get_image_reply, cookies[i]);
    isComplete = isComplete && reply;
    if (isComplete) onPart(i, segment_->data() + offset, std::ptrdiff_t{4} * parts[i].width);
    offset += bytesOf(parts[i]);
  }
  return isComplete;
}

bool ScreenReader::readOverSocket(const std::vector<PixelRect>& parts, const PartHandler& onPart) {
  std::vector<xcb_get_image_cookie_t> cookies;
  cookies.reserve(parts.size());
  for (const PixelRect& part : parts) {
    cookies.push_back(xcb_get_image(connection(), XCB_IMAGE_FORMAT_Z_PIXMAP, connection().root(),
                                    static_cast<std::int16_t>(part.x), static_cast<std::int16_t>(part.y),
                                    static_cast<std::uint16_t>(part.width),
                                    static_cast<std::uint16_t>(part.height), kAllPlanes));
  }
  bool isComplete = true;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const auto reply = waitForReply(connection(), xcb_get_image_reply, cookies[i]);
    const PixelRect& part = parts[i];
    isComplete =
        isComplete && reply && xcb_get_image_data_length(reply.get()) >= 4 * part.width * part.height;
    if (isComplete) onPart(i, xcb_get_image_data(reply.get()), std::ptrdiff_t{4} * part.width);
  }
  return isComplete;
}

}  // namespace kestrune::linux_platform
