#include <array>
#include <utility>

#include "input/RemoteControlService.h"
#include "platform/support/Encoding.h"

namespace kestrune {
namespace {

constexpr std::size_t kLongestText = 200;  // UTF-16 code units
constexpr std::size_t kLongestChunk = 20;  // UTF-16 code units that one event carries

/// Virtual key codes by name.
constexpr std::array<std::pair<std::string_view, std::uint16_t>, 10> kKeys{{
    {"f", 0x03},
    {"return", 0x24},
    {"tab", 0x30},
    {"space", 0x31},
    {"delete", 0x33},
    {"escape", 0x35},
    {"left", 0x7B},
    {"right", 0x7C},
    {"down", 0x7D},
    {"up", 0x7E},
}};

std::optional<std::uint16_t> keyCode(std::string_view name) {
  for (const auto& [key, code] : kKeys) {
    if (key == name) return code;
  }
  return std::nullopt;
}

/// The play key as the system defines it: state 0x0A is down, 0x0B is up; 16 is the key's type.
SystemDefinedEvent playKey(std::uint64_t state, double uptime) {
  SystemDefinedEvent event;
  event.type = 14;  // NSEventTypeSystemDefined
  event.modifierFlags = state << 8U;
  event.timestamp = uptime;
  event.subtype = 8;
  event.data1 = static_cast<std::int64_t>(0x100000U | (state << 8U));
  event.data2 = -1;
  return event;
}

}  // namespace

bool RemoteControlService::postKey(InputEventSource& source, std::uint16_t code, std::u16string_view text) {
  const auto down = source.keyboardEvent(code, true);
  const auto up = source.keyboardEvent(code, false);
  if (!down || !up) return false;
  if (!text.empty()) {
    down->setUnicodeString(text);
    up->setUnicodeString(text);
  }
  down->post();
  up->post();
  return true;
}

RemoteTapResult RemoteControlService::typeText(std::string_view text) {
  // Each code unit takes at least one byte of UTF-8 and at most three: most over-long texts need no
  // conversion.
  if (text.empty() || text.size() > 3 * kLongestText || utf16(text).size() > kLongestText) {
    return RemoteTapResult::eventFailed;
  }
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;
  const auto source = events_->createSource();
  if (!source) return RemoteTapResult::eventFailed;

  std::u16string chunk;
  for (const auto cluster : graphemeClusters(text)) {
    const std::u16string units = utf16(cluster);
    if (!chunk.empty() && chunk.size() + units.size() > kLongestChunk) {
      if (!postKey(*source, 0, chunk)) return RemoteTapResult::eventFailed;
      chunk.clear();
    }
    chunk += units;
  }
  if (!chunk.empty() && !postKey(*source, 0, chunk)) return RemoteTapResult::eventFailed;
  return RemoteTapResult::clicked;
}

RemoteTapResult RemoteControlService::pressKey(std::string_view name) {
  const auto code = keyCode(name);
  if (!code) return RemoteTapResult::eventFailed;
  std::optional<RemoteControlTarget> target;
  if (const auto reason = refusal(target)) return *reason;
  const auto source = events_->createSource();
  return source && postKey(*source, *code, {}) ? RemoteTapResult::clicked : RemoteTapResult::eventFailed;
}

RemoteTapResult RemoteControlService::togglePlayPause() {
  if (!snapshot().isEnabled) return RemoteTapResult::controlDisabled;
  if (!permissions_->isTrustedForInput()) {
    requestAccessibilityPermission();
    return RemoteTapResult::permissionRequired;
  }
  for (const std::uint64_t state : {0x0AU, 0x0BU}) {
    const auto event = events_->systemDefinedEvent(playKey(state, clock_->uptimeSeconds()));
    if (!event) return RemoteTapResult::eventFailed;
    event->post();
  }
  return RemoteTapResult::clicked;
}

}  // namespace kestrune
