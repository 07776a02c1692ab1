#include "platform/linux/input/InputJournal.h"

namespace kestrune::linux_platform {

InputJournal::InputJournal(const X11Connection& connection, xcb_window_t previous)
    : connection_(connection),
      selection_(atom("_KESTRUNE_INPUT")),
      heldInput_(atom("_KESTRUNE_HELD_INPUT")),
      borrowedKeys_(atom("_KESTRUNE_BORROWED_KEYS")) {
  if (previous != XCB_NONE && owner() == previous) xcb_kill_client(connection_, previous);
  if (connection_.isBroken() || owner() != XCB_NONE) return;
  window_ = xcb_generate_id(connection_);
  xcb_create_window(connection_, 0, window_, connection_.root(), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                    XCB_COPY_FROM_PARENT, 0, nullptr);
  xcb_set_selection_owner(connection_, window_, selection_, XCB_CURRENT_TIME);
}

xcb_atom_t InputJournal::atom(std::string_view name) const {
  const auto reply =
      waitForReply(connection_, xcb_intern_atom_reply,
                   xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data()));
  return reply ? reply->atom : xcb_atom_t{XCB_NONE};
}

xcb_window_t InputJournal::owner() const {
  const auto reply = waitForReply(connection_, xcb_get_selection_owner_reply,
                                  xcb_get_selection_owner(connection_, selection_));
  return reply ? reply->owner : xcb_window_t{XCB_NONE};
}

std::vector<std::uint8_t> InputJournal::read(xcb_atom_t property) const {
  if (window_ == XCB_NONE) return {};
  constexpr std::uint32_t kMostWords = 128;
  const auto reply = waitForReply(
      connection_, xcb_get_property_reply,
      xcb_get_property(connection_, 0, connection_.root(), property, XCB_ATOM_CARDINAL, 0, kMostWords));
  if (!reply || reply->format != 8) return {};
  const auto* bytes = static_cast<const std::uint8_t*>(xcb_get_property_value(reply.get()));
  return {bytes, bytes + xcb_get_property_value_length(reply.get())};
}

void InputJournal::write(xcb_atom_t property, const std::vector<std::uint8_t>& bytes) const {
  if (window_ == XCB_NONE) return;
  if (bytes.empty()) {
    xcb_delete_property(connection_, connection_.root(), property);
  } else {
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, connection_.root(), property, XCB_ATOM_CARDINAL,
                        8, static_cast<std::uint32_t>(bytes.size()), bytes.data());
  }
}

std::vector<InputJournal::Held> InputJournal::readHeld() const {
  std::vector<Held> held;
  const auto bytes = read(heldInput_);
  for (std::size_t index = 0; index + 1 < bytes.size(); index += 2) {
    held.push_back({bytes[index] != 0, bytes[index + 1]});
  }
  return held;
}

void InputJournal::noteHeld(const std::set<Held>& held) {
  std::vector<std::uint8_t> bytes;
  for (const Held& each : held) {
    bytes.push_back(each.isButton ? 1 : 0);
    bytes.push_back(each.code);
  }
  write(heldInput_, bytes);
}

std::vector<xcb_keycode_t> InputJournal::readBorrowed() const {
  return read(borrowedKeys_);
}

void InputJournal::noteBorrowed(const std::vector<xcb_keycode_t>& codes) {
  write(borrowedKeys_, codes);
}

}  // namespace kestrune::linux_platform
