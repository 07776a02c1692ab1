#pragma once

#include <string_view>
#include <vector>

#include "platform/linux/input/KeyboardMap.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// Types text as key presses, in any script and under any keyboard layout. Confined to one thread.
///
/// Each code point is its own key press: of a key of the layout where it has one, else of a borrowed key
/// code. Modifiers that are held or locked are lifted meanwhile, since they would turn letters into commands
/// or capitals. Line feed and carriage return press Return, a tab presses Tab; other control characters are
/// left out.
class TextTyper {
 public:
  TextTyper(X11Connection& connection, KeyboardMap& map) : connection_(connection), map_(map) {}

  /// `text` is UTF-16; a surrogate without its partner is left out.
  void type(std::u16string_view text);

 private:
  class LiftedModifiers;

  void press(const KeyboardMap::Key& key, xcb_keycode_t shift);

  X11Connection& connection_;
  KeyboardMap& map_;
};

/// Sends one fake key event through XTEST.
void sendKey(X11Connection& connection, xcb_keycode_t code, bool isDown);

}  // namespace kestrune::linux_platform
