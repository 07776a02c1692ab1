#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/video/SoftwareCompressionSession.h"

struct x265_encoder;
struct x265_param;

namespace kestrune::linux_platform {

/// H.265 by x265: Main, one reference, no frame of delay, two worker threads by wavefronts.
///
/// Rate as in X264CompressionSession. x265 takes no hints about unchanged blocks; it finds them itself.
class X265CompressionSession final : public SoftwareCompressionSession {
 public:
  /// The smallest coding tree unit, below which x265 has no picture.
  static constexpr std::int32_t kMinimumSide = 16;

  explicit X265CompressionSession(CompressionSettings settings);
  ~X265CompressionSession() override;

 protected:
  MediaStatus open(std::vector<Bytes>& parameterSets) override;
  Encoded encodePicture(const Picture& picture) override;
  void close() override;

 private:
  struct ParameterDeleter {
    void operator()(x265_param* parameters) const;
  };

  bool configure();
  MediaStatus collectParameterSets(std::vector<Bytes>& parameterSets);
  void splitChroma(const PixelBuffer& image);

  std::unique_ptr<x265_param, ParameterDeleter> parameters_;
  x265_encoder* encoder_ = nullptr;
  std::int64_t frameNumber_ = 0;
  Bytes cb_;  // chroma planes of the picture at hand: x265 takes them apart only
  Bytes cr_;
};

}  // namespace kestrune::linux_platform
