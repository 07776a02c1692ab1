#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/linux/capture/CursorOverlay.h"
#include "platform/linux/capture/DirtyRegion.h"
#include "platform/linux/capture/PointerWatch.h"
#include "platform/linux/capture/SharedSegment.h"
#include "platform/linux/x11/DisplayLayout.h"

namespace kestrune::linux_platform {

/// Reads the screen of an X server and learns what changes on it. Everything is in pixels of the root window.
/// Confined to one thread; operations throw an X11Error once the connection is lost.
class ScreenReader {
 public:
  /// Throws an X11Error that says what the server lacks. `interrupt` ends waits for the server.
  ScreenReader(const X11Address& address, std::shared_ptr<X11Interrupt> interrupt);
  ~ScreenReader();

  /// Readable when there may be events.
  int fd() const { return connection().descriptor(); }
  /// Takes in what the server has told, without waiting.
  void readEvents();
  /// The same for what has been received already; whether it was anything.
  bool readQueuedEvents();
  /// Whether displays came, went or changed since the last call.
  bool takeLayoutChange();
  DisplayLayout layout() const;
  /// Asks the server for a sign of life.
  void requireAnswer() const;

  /// Damage is reported for this part of the root window only.
  void watch(const PixelRect& area) { watched_ = area; }
  /// What was drawn on since the last forgetDamage().
  const DirtyRegion& damage() const { return damage_; }
  /// The number of DamageNotify events so far.
  std::uint64_t damageReports() const { return damageReports_; }
  /// To be called before what was damaged is read: later changes are reported anew.
  void forgetDamage();

  /// Whether the cursor's movement is reported; off at first.
  void watchPointer(bool isOn) { pointerWatch_.setOn(connection(), isOn); }
  /// Whether the cursor may have moved or changed since the last refreshCursor().
  bool mayCursorHaveChanged() const { return cursorMayHaveChanged_; }
  /// False where the server does not tell of the pointer's movement, and refreshCursor() must be called to
  /// learn of it.
  bool isPointerWatched() const { return pointerWatch_.isAvailable(); }
  bool refreshCursor();
  CursorOverlay& cursor() { return cursor_; }

  /// Part `index` has arrived: its first pixel and the bytes from row to row. Valid within the call, and may
  /// be written to.
  using PartHandler = std::function<void(std::size_t index, std::uint8_t* pixels, std::ptrdiff_t stride)>;
  /// Reads parts of the root window, each handed over while the server reads the next. False if one does not
  /// lie within the window any more.
  bool read(const std::vector<PixelRect>& parts, const PartHandler& onPart);

 private:
  const X11Connection& connection() const { return *connection_; }
  void requireReadablePixels() const;
  void subscribe();
  void handle(const xcb_generic_event_t& event);
  bool readShared(const std::vector<PixelRect>& parts, const PartHandler& onPart);
  bool readOverSocket(const std::vector<PixelRect>& parts, const PartHandler& onPart);
  [[noreturn]] void failLost() const { connection().failLost(); }

  const std::unique_ptr<X11Connection> connection_;
  const DisplayLayoutWatch layoutWatch_;
  PointerWatch pointerWatch_;
  std::uint8_t damageEvent_ = 0;
  std::uint8_t cursorEvent_ = 0;
  std::uint32_t damageId_ = 0;
  PixelRect watched_;
  DirtyRegion damage_;
  std::uint64_t damageReports_ = 0;
  bool layoutChanged_ = false;
  bool cursorMayHaveChanged_ = true;
  CursorOverlay cursor_;
  bool canShare_ = true;
  std::unique_ptr<SharedSegment> segment_;
};

}  // namespace kestrune::linux_platform
