#pragma once

#include "platform/PixelTransfer.h"

namespace kestrune::linux_platform {

/// Letterbox transfer between pictures in memory: "420v" to "420v" by libyuv's box filter, BGRX to "420v" by
/// the conversion of BgrxToNv12.h. Any thread may call the factory and a pool.
class LibyuvPixelTransferFactory final : public PixelTransferFactory {
 public:
  /// CVReturn and OSStatus values that the operations answer with.
  static constexpr std::int32_t kSuccess = 0;
  static constexpr std::int32_t kPixelFormatNotSupported = -12905;  // kVTPixelTransferNotSupportedErr
  static constexpr std::int32_t kAllocationFailed = -6662;          // kCVReturnAllocationFailed
  static constexpr std::int32_t kWouldExceedThreshold = -6689;      // kCVReturnWouldExceedAllocationThreshold
  /// Buffers of one pool that may be in use at once.
  static constexpr int kPoolLimit = 16;
  /// Widths and heights from 1 to this.
  static constexpr int kMaximumSide = 16384;

  std::unique_ptr<PixelTransferSession> createSession() override;
  std::unique_ptr<PixelBufferPool> createPool(int width, int height) override;
  std::shared_ptr<PixelBuffer> createBuffer(int width, int height) override;
};

}  // namespace kestrune::linux_platform
