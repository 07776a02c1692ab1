#pragma once

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/linux/input/InputJournal.h"
#include "platform/linux/x11/X11Connection.h"
#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// Finds a key that gives a key symbol, and borrows a spare key code where the user's layout has none.
///
/// A borrowed code is mapped to the symbol for all clients, stays so for a while, since a client looks a
/// symbol up only when it comes to the event, and gets its own mapping back by giveBack() or at the end.
/// Which codes are borrowed stands in the journal; what a process that died left there is given back at the
/// beginning. Confined to one thread.
class KeyboardMap {
 public:
  struct Key {
    xcb_keycode_t code = 0;
    bool needsShift = false;
  };

  /// The connection and the journal outlive it.
  KeyboardMap(X11Connection& connection, InputJournal& journal, std::shared_ptr<const Clock> clock);
  ~KeyboardMap();

  /// Reads what the server has now; layouts change under us. False if the server does not answer.
  bool refresh();
  /// A key of the user's own layout: in the group that is in use, plain or with Shift.
  std::optional<Key> ownKey(xkb_keysym_t symbol) const;
  /// A key that gives `symbol` under any modifiers for case, borrowed if need be. Nothing if the
  /// server refuses or no key code can be spared. May wait a moment for the least recently used one.
  std::optional<Key> anyKey(xkb_keysym_t symbol);
  /// Gives back all key codes that were not used for `idle`; zero gives back all.
  void giveBack(Duration idle);
  bool hasBorrowed() const { return !borrowed_.empty(); }
  /// Codes of the keys that act as modifiers.
  const std::vector<xcb_keycode_t>& modifierKeys() const { return modifierKeys_; }

 private:
  struct Borrowed {
    xkb_keysym_t symbol = XKB_KEY_NoSymbol;
    std::vector<xcb_keysym_t> original;
    Duration lastUse{};
  };

  std::vector<xcb_keysym_t> symbolsOf(xcb_keycode_t code) const;
  std::optional<xcb_keycode_t> spareCode() const;
  bool map(xcb_keycode_t code, const std::vector<xcb_keysym_t>& symbols);
  void giveBackLeftBehind();
  /// Notes the codes that are borrowed, and `next` if it is not 0.
  void note(xcb_keycode_t next);

  X11Connection& connection_;
  InputJournal& journal_;
  const std::shared_ptr<const Clock> clock_;
  xcb_keycode_t firstCode_ = 8;
  std::uint8_t symbolsPerCode_ = 0;
  std::vector<xcb_keysym_t> symbols_;  // symbolsPerCode_ for each code from firstCode_ on
  std::vector<xcb_keycode_t> modifierKeys_;
  std::optional<std::uint8_t> firstColumn_;  // of the group in use, in symbols_
  std::map<xcb_keycode_t, Borrowed> borrowed_;
};

}  // namespace kestrune::linux_platform
