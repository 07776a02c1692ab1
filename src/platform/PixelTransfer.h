#pragma once

#include <cstdint>
#include <memory>

#include "platform/PixelBuffer.h"

namespace kestrune {

/// Buffers of one size and format that are reused once their last user has released them. Any thread may
/// release.
class PixelBufferPool {
 public:
  struct Result {
    std::int32_t status = 0;  // 0 on success; messages show it
    std::shared_ptr<PixelBuffer> buffer;
  };
  virtual ~PixelBufferPool() = default;
  virtual Result createBuffer() = 0;
};

/// Scales and converts one picture into another: letterbox scaling (aspect preserved, black bars), ITU-R
/// BT.709 primaries, transfer function and matrix on the destination. Confined to one queue at a time.
class PixelTransferSession {
 public:
  virtual ~PixelTransferSession() = default;
  /// Fills `destination` from `source`; 0 on success.
  virtual std::int32_t transfer(const PixelBuffer& source, PixelBuffer& destination) = 0;
};

class PixelTransferFactory {
 public:
  virtual ~PixelTransferFactory() = default;
  /// Null if the system cannot make one.
  virtual std::unique_ptr<PixelTransferSession> createSession() = 0;
  /// A pool of "420v" buffers, or null.
  virtual std::unique_ptr<PixelBufferPool> createPool(int width, int height) = 0;
  /// One "420v" buffer outside any pool, or null.
  virtual std::shared_ptr<PixelBuffer> createBuffer(int width, int height) = 0;
};

}  // namespace kestrune
