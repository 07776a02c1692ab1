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
///
/// Which codes are lent stands in a property of the root window (_KESTRUNE_LENT_KEYS), written before a code
/// is changed; a selection of the same name is owned meanwhile. Where the property is there and the selection
/// has no owner, a lender died, and the next one takes the codes back.
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
  /// A key of the user's own layout: in the group that is in use, plain or with Shift.
  std::optional<Key> ownKey(xkb_keysym_t symbol) const;
  /// A key that gives `symbol` whatever modifiers for case are held, lent if need be. Nothing if the server
  /// refuses or no key code can be spared. May wait a moment for the least recently used one.
  std::optional<Key> anyKey(xkb_keysym_t symbol);
  /// Gives all lent key codes back that were not used for `idle`; zero gives back all.
  void giveBack(Duration idle);
  bool hasLent() const { return !lent_.empty(); }
  /// Whether another symbol would have to wait for a code that is lent.
  bool isLentOut() const { return hasLent() && !spareCode(); }
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
  void becomeLender();
  void takeBackFromTheDead();
  /// Writes the codes that are lent, and `next` if it is not 0, into the property.
  void noteLent(xcb_keycode_t next);

  X11Connection& connection_;
  const std::shared_ptr<const Clock> clock_;
  xcb_keycode_t firstCode_ = 8;
  std::uint8_t symbolsPerCode_ = 0;
  std::vector<xcb_keysym_t> symbols_;  // symbolsPerCode_ for each code from firstCode_ on
  std::vector<xcb_keycode_t> modifierKeys_;
  std::optional<std::uint8_t> firstColumn_;  // of the group in use, in symbols_
  xcb_atom_t lentKeys_ = XCB_NONE;
  bool isLender_ = false;  // owns the selection
  std::map<xcb_keycode_t, Lent> lent_;
};

}  // namespace kestrune::linux_platform
