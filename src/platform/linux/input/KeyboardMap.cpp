#include "platform/linux/input/KeyboardMap.h"

// The header of xcb for the keyboard extension uses a keyword of C++ as a name.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

#include <algorithm>
#include <thread>

namespace kestrune::linux_platform {
namespace {

// A client that has not come to an event within this time reads a wrong symbol if the key code is used anew.
// Terminals and toolkits handle events within a few milliseconds; a busy browser takes tens.
constexpr Duration kSettlingTime = std::chrono::milliseconds(250);
// Enough for a text of 200 characters in a script of many signs to wait seldom, few enough to leave a full
// keyboard alone.
constexpr std::size_t kMostBorrowed = 64;

}  // namespace

KeyboardMap::KeyboardMap(X11Connection& connection, InputJournal& journal, std::shared_ptr<const Clock> clock)
    : connection_(connection), journal_(journal), clock_(std::move(clock)) {
  giveBackLeftBehind();
}

KeyboardMap::~KeyboardMap() {
  giveBack(Duration::zero());
}

void KeyboardMap::giveBackLeftBehind() {
  const auto left = journal_.readBorrowed();
  if (left.empty() || !refresh()) return;
  for (const xcb_keycode_t code : left) {
    if (code < firstCode_) continue;
    // Only codes that gave nothing are borrowed. Whoever has mapped one since has given it several symbols,
    // or a symbol that is not of the range for Unicode.
    const auto symbols = symbolsOf(code);
    const bool isBorrowed = std::all_of(symbols.begin(), symbols.end(), [&](auto symbol) {
      return symbol == symbols.front() || symbol == XCB_NO_SYMBOL;
    });
    if (isBorrowed && symbols.front() != XCB_NO_SYMBOL) map(code, {XCB_NO_SYMBOL});
  }
  note(0);
}

void KeyboardMap::note(xcb_keycode_t next) {
  std::vector<xcb_keycode_t> codes;
  for (const auto& each : borrowed_) codes.push_back(each.first);
  if (next != 0) codes.push_back(next);
  journal_.noteBorrowed(codes);
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
  // The columns of the core mapping are two of the first group, two of the second, then higher levels.
  const unsigned group = state ? state->group : 0U;
  firstColumn_.reset();
  if (group < 2 && 2 * group + 1 < symbolsPerCode_) firstColumn_ = static_cast<std::uint8_t>(2 * group);
  return true;
}

std::vector<xcb_keysym_t> KeyboardMap::symbolsOf(xcb_keycode_t code) const {
  const auto first = symbols_.begin() + std::ptrdiff_t{code - firstCode_} * symbolsPerCode_;
  return {first, first + symbolsPerCode_};
}

std::optional<KeyboardMap::Key> KeyboardMap::ownKey(xkb_keysym_t symbol) const {
  if (!firstColumn_) return std::nullopt;
  for (std::size_t level = 0; level < 2; ++level) {
    for (std::size_t index = *firstColumn_ + level; index < symbols_.size(); index += symbolsPerCode_) {
      const auto code = static_cast<xcb_keycode_t>(firstCode_ + index / symbolsPerCode_);
      if (symbols_[index] == symbol && !borrowed_.contains(code)) return Key{code, level == 1};
    }
  }
  return std::nullopt;
}

std::optional<xcb_keycode_t> KeyboardMap::spareCode() const {
  if (borrowed_.size() >= kMostBorrowed) return std::nullopt;
  // From the top: the low codes are those of real keyboards.
  for (int code = firstCode_ + static_cast<int>(symbols_.size() / symbolsPerCode_) - 1; code >= firstCode_;
       --code) {
    const auto candidate = static_cast<xcb_keycode_t>(code);
    const auto symbols = symbolsOf(candidate);
    const bool isEmpty = std::all_of(symbols.begin(), symbols.end(), [](auto symbol) { return symbol == 0; });
    const bool isModifier =
        std::find(modifierKeys_.begin(), modifierKeys_.end(), candidate) != modifierKeys_.end();
    if (isEmpty && !isModifier && !borrowed_.contains(candidate)) return candidate;
  }
  return std::nullopt;
}

bool KeyboardMap::map(xcb_keycode_t code, const std::vector<xcb_keysym_t>& symbols) {
  const auto cookie = xcb_change_keyboard_mapping_checked(
      connection_, 1, code, static_cast<std::uint8_t>(symbols.size()), symbols.data());
  const auto error = connection_.check(cookie);
  return !error && !connection_.isBroken();
}

std::optional<KeyboardMap::Key> KeyboardMap::anyKey(xkb_keysym_t symbol) {
  const Duration now = clock_->continuousNow();
  for (auto& [code, each] : borrowed_) {
    if (each.symbol != symbol) continue;
    each.lastUse = now;
    return Key{code, false};
  }
  auto code = spareCode();
  std::vector<xcb_keysym_t> original;
  if (code) {
    original = symbolsOf(*code);
  } else {
    const auto oldest =
        std::min_element(borrowed_.begin(), borrowed_.end(),
                         [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; });
    if (oldest == borrowed_.end()) return std::nullopt;
    const Duration wait = oldest->second.lastUse + kSettlingTime - now;
    if (wait > Duration::zero()) std::this_thread::sleep_for(wait);
    code = oldest->first;
    original = oldest->second.original;
  }
  // The same symbol on both levels: neither Shift nor a lock changes what the key gives.
  note(*code);
  if (!map(*code, {symbol, symbol})) return std::nullopt;
  borrowed_.insert_or_assign(*code, Borrowed{symbol, std::move(original), clock_->continuousNow()});
  return Key{*code, false};
}

void KeyboardMap::giveBack(Duration idle) {
  const Duration now = clock_->continuousNow();
  bool isChanged = false;
  for (auto entry = borrowed_.begin(); entry != borrowed_.end();) {
    if (now - entry->second.lastUse < idle) {
      ++entry;
      continue;
    }
    map(entry->first, entry->second.original);
    entry = borrowed_.erase(entry);
    isChanged = true;
  }
  if (isChanged) note(0);
}

}  // namespace kestrune::linux_platform
