#include "platform/linux/capture/PointerWatch.h"

#include <xcb/xcbext.h>

#include <array>

namespace kestrune::linux_platform {

namespace {

xcb_extension_t inputExtension = {"XInputExtension", 0};

constexpr std::uint8_t kSelectEvents = 46;
constexpr std::uint8_t kQueryVersion = 47;
constexpr std::uint16_t kAllMasterDevices = 1;
constexpr std::uint16_t kRawMotion = 17;

struct QueryVersionRequest {
  std::uint8_t majorOpcode = 0;
  std::uint8_t minorOpcode = 0;
  std::uint16_t length = 0;
  std::uint16_t majorVersion = 2;
  std::uint16_t minorVersion = 2;
};

struct SelectEventsRequest {
  std::uint8_t majorOpcode = 0;
  std::uint8_t minorOpcode = 0;
  std::uint16_t length = 0;
  std::uint32_t window = 0;
  std::uint16_t maskCount = 1;
  std::uint16_t padding = 0;
  std::uint16_t device = kAllMasterDevices;
  std::uint16_t maskWords = 1;
  std::uint32_t mask = 0;
};

/// xcb fills in opcode and length.
template <class Request>
unsigned int send(const X11Connection& connection, std::uint8_t opcode, bool hasReply, Request request) {
  const xcb_protocol_request_t protocol{1, &inputExtension, opcode,
                                        static_cast<std::uint8_t>(hasReply ? 0 : 1)};
  // xcb uses the two parts in front for itself.
  std::array<iovec, 3> parts{};
  parts[2] = {&request, sizeof request};
  return xcb_send_request(connection, XCB_REQUEST_CHECKED, parts.data() + 2, &protocol);
}

}  // namespace

PointerWatch::PointerWatch(const X11Connection& connection) {
  const auto extension = connection.extension(inputExtension);
  if (!extension) return;
  const X11Connection::LimitedWait wait(connection);
  const unsigned int version = send(connection, kQueryVersion, true, QueryVersionRequest{});
  xcb_generic_error_t* error = nullptr;
  const XcbOwned<void> reply(xcb_wait_for_reply(connection, version, &error));
  const XcbOwned<xcb_generic_error_t> noVersion(error);
  if (reply) opcode_ = extension->majorOpcode;
}

void PointerWatch::setOn(const X11Connection& connection, bool isOn) {
  if (!opcode_ || isOn == isOn_) return;
  isOn_ = isOn;
  SelectEventsRequest select;
  select.window = connection.root();
  select.mask = isOn ? 1U << kRawMotion : 0;
  const auto refused = connection.check({send(connection, kSelectEvents, false, select)});
  if (refused) opcode_.reset();
}

bool PointerWatch::isMotion(const xcb_generic_event_t& event) const {
  if (!opcode_ || (event.response_type & 0x7f) != XCB_GE_GENERIC) return false;
  const auto& generic = reinterpret_cast<const xcb_ge_generic_event_t&>(event);
  return generic.extension == *opcode_ && generic.event_type == kRawMotion;
}

}  // namespace kestrune::linux_platform
