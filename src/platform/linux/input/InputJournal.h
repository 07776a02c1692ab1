#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// What this process has changed at the X server that outlives its connection: keys and buttons that it holds
/// down through XTEST, and key codes that it has borrowed for characters. Each change is noted before it is
/// made, in a property of the root window (_KESTRUNE_HELD_INPUT, _KESTRUNE_BORROWED_KEYS), which dies with
/// the server, and so does the input that it lists. A selection (_KESTRUNE_INPUT) is owned meanwhile:
/// properties without an owner were left behind by a process that died, and the next one undoes what they
/// say.
///
/// While another process owns the selection, nothing is noted and nothing undone. Confined to one thread.
class InputJournal {
 public:
  /// A key or a button, as XTEST counts them.
  struct Held {
    bool isButton = false;
    std::uint8_t code = 0;
    friend bool operator<(const Held& a, const Held& b) {
      return std::pair(a.isButton, a.code) < std::pair(b.isButton, b.code);
    }
  };

  /// `previous` is the window() of a connection of this process that broke, or XCB_NONE: if the server has
  /// not noticed that yet, it is told.
  InputJournal(const X11Connection& connection, xcb_window_t previous);

  /// The window that owns the selection; XCB_NONE while another process does.
  xcb_window_t window() const { return window_; }

  /// What a process that died held, and has not been released since. Released by the caller.
  std::vector<Held> readHeld() const;
  void noteHeld(const std::set<Held>& held);
  /// The key codes that it had borrowed.
  std::vector<xcb_keycode_t> readBorrowed() const;
  void noteBorrowed(const std::vector<xcb_keycode_t>& codes);

 private:
  xcb_atom_t atom(std::string_view name) const;
  xcb_window_t owner() const;
  std::vector<std::uint8_t> read(xcb_atom_t property) const;
  void write(xcb_atom_t property, const std::vector<std::uint8_t>& bytes) const;

  const X11Connection& connection_;
  const xcb_atom_t selection_;
  const xcb_atom_t heldInput_;
  const xcb_atom_t borrowedKeys_;
  xcb_window_t window_ = XCB_NONE;
};

}  // namespace kestrune::linux_platform
