#pragma once

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/linux/x11/X11Connection.h"
#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// Finds a key that gives a key symbol, and lends a spare one where the user's layout has none.
///
/// A lent key code is mapped to the symbol for all clients, stays so for a while, since a client looks a
/// symbol up only when it comes to the event, and is given back its own mapping by giveBack() or at the end.
/// Not for several threads at once.
class KeyboardMap {
 public:
  struct Key {
    xcb_keycode_t code = 0;
    bool needsShift = false;
  };

  KeyboardMap(X11Connection& connection, std::shared_ptr<const Clock> clock);
  ~KeyboardMap();

  /// Reads what the server has now; layouts change under us. False if the server does not answer.
  bool refresh();
  /// A key of the user's own layout: in its first group, plain or with Shift, and only while that group is in
  /// use.
  std::optional<Key> ownKey(xkb_keysym_t symbol) const;
  /// A key that gives `symbol` whatever modifiers for case are held, lent if need be. Nothing if the server
  /// refuses or no key code can be spared. May wait a moment for the least recently used one.
  std::optional<Key> anyKey(xkb_keysym_t symbol);
  /// Gives all lent key codes back that were not used for `idle`; zero gives back all.
  void giveBack(Duration idle);
  bool hasLent() const { return !lent_.empty(); }
  /// Codes of the keys that act as modifiers.
  const std::vector<xcb_keycode_t>& modifierKeys() const { return modifierKeys_; }

 private:
  struct Lent {
    xkb_keysym_t symbol = XKB_KEY_NoSymbol;
    std::vector<xcb_keysym_t> original;
    Duration lastUse{};
  };

  std::vector<xcb_keysym_t> symbolsOf(xcb_keycode_t code) const;
  std::optional<xcb_keycode_t> spareCode() const;
  bool map(xcb_keycode_t code, const std::vector<xcb_keysym_t>& symbols);

  X11Connection& connection_;
  const std::shared_ptr<const Clock> clock_;
  xcb_keycode_t firstCode_ = 8;
  std::uint8_t symbolsPerCode_ = 0;
  std::vector<xcb_keysym_t> symbols_;  // symbolsPerCode_ for each code from firstCode_ on
  std::vector<xcb_keycode_t> modifierKeys_;
  bool isFirstGroup_ = true;
  std::map<xcb_keycode_t, Lent> lent_;
};

}  // namespace kestrune::linux_platform
