#include "platform/linux/input/KeyboardMap.h"

// The header of xcb for the keyboard extension uses a keyword of C++ as a name.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

#include <algorithm>
#include <thread>

namespace kestrune::linux_platform {
namespace {

// A client that has not come to an event within this time reads a wrong symbol if the key is lent anew.
// Terminals and toolkits handle events within a few milliseconds; a busy browser takes tens.
constexpr Duration kSettlingTime = std::chrono::milliseconds(150);
// Enough for a text of 200 characters in a script of many signs to wait seldom, few enough to leave a full
// keyboard alone.
constexpr std::size_t kMostLentKeys = 64;

}  // namespace

KeyboardMap::KeyboardMap(X11Connection& connection, std::shared_ptr<const Clock> clock)
    : connection_(connection), clock_(std::move(clock)) {}

KeyboardMap::~KeyboardMap() {
  giveBack(Duration::zero());
}

bool KeyboardMap::refresh() {
  const auto* setup = xcb_get_setup(connection_);
  firstCode_ = setup->min_keycode;
  const auto count = static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1);
  const auto mapping = waitForReply(connection_, xcb_get_keyboard_mapping_reply,
                                    xcb_get_keyboard_mapping(connection_, firstCode_, count));
  if (!mapping || mapping->keysyms_per_keycode == 0) return false;
  symbolsPerCode_ = mapping->keysyms_per_keycode;
  const auto* symbols = xcb_get_keyboard_mapping_keysyms(mapping.get());
  symbols_.assign(symbols, symbols + xcb_get_keyboard_mapping_keysyms_length(mapping.get()));

  modifierKeys_.clear();
  if (const auto modifiers =
          waitForReply(connection_, xcb_get_modifier_mapping_reply, xcb_get_modifier_mapping(connection_))) {
    const auto* codes = xcb_get_modifier_mapping_keycodes(modifiers.get());
    const int length = xcb_get_modifier_mapping_keycodes_length(modifiers.get());
    std::copy_if(codes, codes + length, std::back_inserter(modifierKeys_),
                 [](auto code) { return code != 0; });
  }

  const auto state = waitForReply(connection_, xcb_xkb_get_state_reply,
                                  xcb_xkb_get_state(connection_, XCB_XKB_ID_USE_CORE_KBD));
  isFirstGroup_ = !state || state->group == XCB_XKB_GROUP_1;
  return true;
}

std::vector<xcb_keysym_t> KeyboardMap::symbolsOf(xcb_keycode_t code) const {
  const auto first = symbols_.begin() + (code - firstCode_) * symbolsPerCode_;
  return {first, first + symbolsPerCode_};
}

std::optional<KeyboardMap::Key> KeyboardMap::ownKey(xkb_keysym_t symbol) const {
  if (!isFirstGroup_ || symbolsPerCode_ == 0) return std::nullopt;
  for (std::uint8_t level = 0; level < std::min<int>(symbolsPerCode_, 2); ++level) {
    for (std::size_t index = level; index < symbols_.size(); index += symbolsPerCode_) {
      const auto code = static_cast<xcb_keycode_t>(firstCode_ + index / symbolsPerCode_);
      if (symbols_[index] == symbol && !lent_.contains(code)) return Key{code, level == 1};
    }
  }
  return std::nullopt;
}

std::optional<xcb_keycode_t> KeyboardMap::spareCode() const {
  if (lent_.size() >= kMostLentKeys) return std::nullopt;
  // From the top: the low codes are those of real keyboards.
  for (int code = firstCode_ + static_cast<int>(symbols_.size() / symbolsPerCode_) - 1; code >= firstCode_;
       --code) {
    const auto candidate = static_cast<xcb_keycode_t>(code);
    const auto symbols = symbolsOf(candidate);
    const bool isEmpty = std::all_of(symbols.begin(), symbols.end(), [](auto symbol) { return symbol == 0; });
    const bool isModifier =
        std::find(modifierKeys_.begin(), modifierKeys_.end(), candidate) != modifierKeys_.end();
    if (isEmpty && !isModifier && !lent_.contains(candidate)) return candidate;
  }
  return std::nullopt;
}

bool KeyboardMap::map(xcb_keycode_t code, const std::vector<xcb_keysym_t>& symbols) {
  const auto cookie = xcb_change_keyboard_mapping_checked(
      connection_, 1, code, static_cast<std::uint8_t>(symbols.size()), symbols.data());
  const XcbOwned<xcb_generic_error_t> error(xcb_request_check(connection_, cookie));
  return !error && !connection_.isBroken();
}

std::optional<KeyboardMap::Key> KeyboardMap::anyKey(xkb_keysym_t symbol) {
  const Duration now = clock_->continuousNow();
  for (auto& [code, lent] : lent_) {
    if (lent.symbol != symbol) continue;
    lent.lastUse = now;
    return Key{code, false};
  }
  auto code = spareCode();
  std::vector<xcb_keysym_t> original;
  if (code) {
    original = symbolsOf(*code);
  } else {
    const auto oldest = std::min_element(lent_.begin(), lent_.end(), [](const auto& a, const auto& b) {
      return a.second.lastUse < b.second.lastUse;
    });
    if (oldest == lent_.end()) return std::nullopt;
    const Duration wait = oldest->second.lastUse + kSettlingTime - now;
    if (wait > Duration::zero()) std::this_thread::sleep_for(wait);
    code = oldest->first;
    original = oldest->second.original;
  }
  // The same symbol on both levels: neither Shift nor a lock changes what the key gives.
  if (!map(*code, {symbol, symbol})) return std::nullopt;
  lent_.insert_or_assign(*code, Lent{symbol, std::move(original), clock_->continuousNow()});
  return Key{*code, false};
}

void KeyboardMap::giveBack(Duration idle) {
  const Duration now = clock_->continuousNow();
  for (auto entry = lent_.begin(); entry != lent_.end();) {
    if (now - entry->second.lastUse < idle) {
      ++entry;
      continue;
    }
    map(entry->first, entry->second.original);
    entry = lent_.erase(entry);
  }
}

}  // namespace kestrune::linux_platform
