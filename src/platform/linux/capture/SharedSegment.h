#pragma once

#include <xcb/shm.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// Memory that the X server writes pictures into (MIT-SHM). No other user of the machine can open it: it is a
/// sealed memory file whose descriptor is passed to the server or, with a server that does not take one, a
/// System V segment of mode 0600 that is marked for removal at once.
class SharedSegment {
 public:
  enum class Kind { best, systemV };
  /// Null if the server does not share memory with this client, for instance over a network.
  static std::unique_ptr<SharedSegment> create(const X11Connection& connection, std::size_t size,
                                               Kind kind = Kind::best);
  ~SharedSegment();
  SharedSegment(const SharedSegment&) = delete;
  SharedSegment& operator=(const SharedSegment&) = delete;

  xcb_shm_seg_t id() const { return id_; }
  const std::uint8_t* data() const { return data_; }
  std::uint8_t* data() { return data_; }
  std::size_t size() const { return size_; }
  bool isSystemV() const { return isSystemV_; }

 private:
  explicit SharedSegment(const X11Connection& connection, std::size_t size)
      : connection_(connection), size_(size) {}
  bool attachMemoryFile();
  bool attachSystemV();

  const X11Connection& connection_;
  const std::size_t size_;
  xcb_shm_seg_t id_ = 0;  // 0 while the server has not attached
  std::uint8_t* data_ = nullptr;
  bool isSystemV_ = false;
};

}  // namespace kestrune::linux_platform
