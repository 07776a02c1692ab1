#pragma once

#include <cstdint>
#include <optional>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// Tells when the pointer moves, wherever it is, by the raw motion events of the X Input extension 2. Two
/// requests and one event are all that is needed of it, so they are put together here (XI2proto).
class PointerWatch {
 public:
  explicit PointerWatch(const X11Connection& connection);

  /// False where the server cannot tell: the position must then be asked for now and again.
  bool isAvailable() const { return opcode_.has_value(); }
  /// Off at first: a mouse may move a thousand times a second.
  void setOn(const X11Connection& connection, bool isOn);
  bool isMotion(const xcb_generic_event_t& event) const;

 private:
  std::optional<std::uint8_t> opcode_;
  bool isOn_ = false;
};

}  // namespace kestrune::linux_platform
