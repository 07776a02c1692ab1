// The packaging of encoded samples. The first byte chooses the length prefix, whether it is a keyframe, and
// the codec; the rest is the sample.

#include <optional>

#include "FuzzInput.h"
#include "capture/AnnexB.h"
#include "support/FakeCompression.h"

namespace {

using namespace kestrune;

/// What the conversion must give, by another road: sizes first, then bytes.
std::optional<Bytes> expected(ByteView data, int nalHeaderLength) {
  if (nalHeaderLength < 1 || nalHeaderLength > 4) return std::nullopt;
  const auto prefix = static_cast<std::size_t>(nalHeaderLength);
  Bytes output;
  std::size_t at = 0;
  while (at != data.size()) {
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < prefix; ++i) {
      if (at + i >= data.size()) return std::nullopt;
      length = length * 256 + data[at + i];
    }
    if (length == 0 || length > data.size() - at - prefix) return std::nullopt;
    for (const int byte : {0, 0, 0, 1}) output.push_back(static_cast<std::uint8_t>(byte));
    for (std::uint64_t i = 0; i < length; ++i) output.push_back(data[at + prefix + i]);
    at += prefix + length;
  }
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const int nalHeaderLength = bytes[0] & 7;
  const bool isKeyframe = (bytes[0] & 8) != 0;
  const auto codec = (bytes[0] & 16) != 0 ? StreamVideoCodec::hevc : StreamVideoCodec::h264;
  const ByteView data(bytes + 1, size - 1);

  const auto converted = annexb::annexBUnits(data, nalHeaderLength);
  const auto* units = std::get_if<Bytes>(&converted);
  require((units ? std::optional(*units) : std::nullopt) == expected(data, nalHeaderLength),
          "units are converted, or refused");

  auto sample = *makeFakeSample(Bytes(data.begin(), data.end()), isKeyframe);
  sample.format = FakeFormatDescription::withSets({{0x67, 0x42}}, nalHeaderLength);
  const auto assembled = annexb::assemble(sample, codec);
  // A delta frame is read with prefixes of four bytes.
  const auto content = expected(data, isKeyframe ? nalHeaderLength : 4);
  const auto* unit = std::get_if<annexb::AccessUnit>(&assembled);
  require((unit != nullptr) == content.has_value(), "a sample is packed, or refused");
  if (unit == nullptr) return 0;
  Bytes wanted = isKeyframe ? Bytes{0, 0, 0, 1, 0x67, 0x42} : Bytes{};
  wanted.insert(wanted.end(), content->begin(), content->end());
  require(unit->payload == wanted, "the units follow the parameter sets");
  return 0;
}
