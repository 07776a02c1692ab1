#include "platform/linux/input/TextTyper.h"

#define explicit explicit_  // a name in the header of the keyboard extension
#include <xcb/xkb.h>
#undef explicit
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <array>
#include <optional>

namespace kestrune::linux_platform {
namespace {

std::vector<char32_t> codePoints(std::u16string_view text) {
  std::vector<char32_t> result;
  for (std::size_t index = 0; index < text.size(); ++index) {
    const char32_t unit = text[index];
    // One line end, one press.
    if (unit == U'\n' && index > 0 && text[index - 1] == u'\r') continue;
    const bool isHigh = unit >= 0xD800 && unit < 0xDC00;
    const bool isLow = unit >= 0xDC00 && unit < 0xE000;
    if (isHigh && index + 1 < text.size() && text[index + 1] >= 0xDC00 && text[index + 1] < 0xE000) {
      result.push_back(0x10000 + ((unit - 0xD800) << 10U) + (text[++index] - 0xDC00U));
    } else if (!isHigh && !isLow) {
      result.push_back(unit);
    }
  }
  return result;
}

std::optional<xkb_keysym_t> symbolFor(char32_t point) {
  if (point == U'\n' || point == U'\r') return XKB_KEY_Return;
  if (point == U'\t') return XKB_KEY_Tab;
  if (point < 0x20 || (point >= 0x7F && point < 0xA0)) return std::nullopt;
  // Latin-1 is its own symbol; everything else is in the range that X reserves for Unicode.
  return point < 0x100 ? static_cast<xkb_keysym_t>(point) : static_cast<xkb_keysym_t>(0x01000000U + point);
}

/// Layouts name the letters of older character sets by symbols of their own, such as Cyrillic_a.
std::optional<KeyboardMap::Key> ownKeyFor(const KeyboardMap& map, char32_t point, xkb_keysym_t symbol) {
  const auto key = map.ownKey(symbol);
  if (key || point < 0x100) return key;
  const xkb_keysym_t legacy = xkb_utf32_to_keysym(point);
  return legacy == XKB_KEY_NoSymbol || legacy == symbol ? std::nullopt : map.ownKey(legacy);
}

}  // namespace

void sendKey(X11Connection& connection, xcb_keycode_t code, bool isDown) {
  xcb_test_fake_input(connection, isDown ? XCB_KEY_PRESS : XCB_KEY_RELEASE, code, XCB_CURRENT_TIME, XCB_NONE,
                      0, 0, 0);
}

/// While it lives, no modifier is in force; afterwards those that were are again.
class TextTyper::LiftedModifiers {
 public:
  LiftedModifiers(X11Connection& connection, const std::vector<xcb_keycode_t>& modifierKeys)
      : connection_(connection) {
    if (const auto keys = waitForReply(connection, xcb_query_keymap_reply, xcb_query_keymap(connection))) {
      for (const auto code : modifierKeys) {
        if ((keys->keys[code / 8] >> (code % 8) & 1) != 0) held_.push_back(code);
      }
    }
    const auto state = waitForReply(connection, xcb_xkb_get_state_reply,
                                    xcb_xkb_get_state(connection, XCB_XKB_ID_USE_CORE_KBD));
    if (state) locked_ = static_cast<std::uint8_t>(state->lockedMods & ~kNumLock);
    for (const auto code : held_) sendKey(connection, code, false);
    if (locked_ != 0) setLocked(false);
  }
  ~LiftedModifiers() {
    if (locked_ != 0) setLocked(true);
    for (const auto code : held_) sendKey(connection_, code, true);
  }
  LiftedModifiers(const LiftedModifiers&) = delete;
  LiftedModifiers& operator=(const LiftedModifiers&) = delete;

 private:
  // Concerns the keypad only, on which nothing is typed; leaving it spares the keyboard's indicator a change.
  static constexpr unsigned kNumLock = XCB_MOD_MASK_2;

  void setLocked(bool isOn) {
    xcb_xkb_latch_lock_state(connection_, XCB_XKB_ID_USE_CORE_KBD, locked_, isOn ? locked_ : std::uint8_t{0},
                             0, 0, 0, 0, 0);
  }

  X11Connection& connection_;
  std::vector<xcb_keycode_t> held_;
  std::uint8_t locked_ = 0;  // Caps Lock and others, such as a locked third level
};

void TextTyper::press(const KeyboardMap::Key& key, xcb_keycode_t shift) {
  if (key.needsShift) sendKey(connection_, shift, true);
  sendKey(connection_, key.code, true);
  sendKey(connection_, key.code, false);
  if (key.needsShift) sendKey(connection_, shift, false);
}

void TextTyper::type(std::u16string_view text) {
  if (!map_.refresh()) return;
  const auto shift = map_.ownKey(XKB_KEY_Shift_L);
  const LiftedModifiers lifted(connection_, map_.modifierKeys());
  for (const char32_t point : codePoints(text)) {
    const auto symbol = symbolFor(point);
    if (!symbol) continue;
    auto key = ownKeyFor(map_, point, *symbol);
    if (!key || (key->needsShift && !shift)) key = map_.anyKey(*symbol);
    if (key) press(*key, shift ? shift->code : xcb_keycode_t{0});
  }
  connection_.flush();
}

}  // namespace kestrune::linux_platform
