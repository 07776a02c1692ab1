#include "capture/AnnexB.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <utility>

namespace kestrune {

H264AnnexBError H264AnnexBError::blockBufferReadFailed(MediaStatus status) {
  H264AnnexBError error(Case::blockBufferReadFailed);
  error.status_ = status;
  return error;
}

std::string H264AnnexBError::localizedDescription() const {
  return "The operation couldn’t be completed. (Kestrune.H264AnnexBError error " +
         std::to_string(static_cast<int>(value_)) + ".)";
}

namespace annexb {
namespace {

constexpr std::array<std::uint8_t, 4> kStartCode{0, 0, 0, 1};
/// The prefix that a start code can take the place of.
constexpr int kLengthPrefix = 4;

void appendStartCode(Bytes& bytes) {
  bytes.insert(bytes.end(), kStartCode.begin(), kStartCode.end());
}

KestruneError parameterSetFailure(const char* what, MediaStatus status) {
  return KestruneError::operationFailed(std::string(what) + " (OSStatus " + std::to_string(status) + ").");
}

/// What differs between the codecs when parameter sets are read.
struct CodecReader {
  VideoFormatDescription::Summary (VideoFormatDescription::*summary)() const;
  VideoFormatDescription::ParameterSet (VideoFormatDescription::*parameterSet)(std::size_t) const;
  const char* summaryFailure;
  const char* setFailure;
};

constexpr CodecReader kH264Reader{
    &VideoFormatDescription::h264Summary, &VideoFormatDescription::h264ParameterSet,
    "Unable to read H.264 parameter sets", "Unable to read an H.264 parameter set"};
constexpr CodecReader kHEVCReader{
    &VideoFormatDescription::hevcSummary, &VideoFormatDescription::hevcParameterSet,
    "Unable to read H.265 parameter sets", "Unable to read an H.265 parameter set"};

/// Calls `visit(position, length)` for each unit of length-prefixed `data`, where the unit's own bytes begin
/// at `position`, until the end or the failure that is returned. `visit` may write over the prefix.
template <class Visit>
std::optional<H264AnnexBError> forEachUnit(ByteView data, int nalHeaderLength, Visit visit) {
  using Case = H264AnnexBError::Case;
  if (nalHeaderLength < 1 || nalHeaderLength > 4) return H264AnnexBError(Case::invalidNALUnitHeaderLength);
  const auto prefix = static_cast<std::size_t>(nalHeaderLength);
  for (std::size_t position = 0; position < data.size();) {
    if (data.size() - position < prefix) return H264AnnexBError(Case::truncatedNALUnit);
    std::size_t length = 0;
    for (const std::uint8_t byte : data.subspan(position, prefix)) length = length << 8 | byte;
    if (length == 0) return H264AnnexBError(Case::emptyNALUnit);
    position += prefix;
    if (length > data.size() - position) return H264AnnexBError(Case::truncatedNALUnit);
    visit(position, length);
    position += length;
  }
  return std::nullopt;
}

}  // namespace

ParameterSetsResult parameterSets(const VideoFormatDescription& format, StreamVideoCodec codec) {
  const CodecReader& reader = codec == StreamVideoCodec::hevc ? kHEVCReader : kH264Reader;
  const auto summary = (format.*reader.summary)();
  if (summary.status != 0) return parameterSetFailure(reader.summaryFailure, summary.status);

  ParameterSets result;
  result.nalHeaderLength = summary.nalHeaderLength;
  for (std::size_t index = 0; index < summary.parameterSetCount; ++index) {
    const auto set = (format.*reader.parameterSet)(index);
    if (set.status != 0 || set.data == nullptr) return parameterSetFailure(reader.setFailure, set.status);
    appendStartCode(result.bytes);
    result.bytes.insert(result.bytes.end(), set.data, set.data + set.size);
  }
  return result;
}

BytesResult annexBUnits(ByteView data, int nalHeaderLength) {
  Bytes output;
  output.reserve(data.size());
  const auto failure = forEachUnit(data, nalHeaderLength, [&](std::size_t position, std::size_t length) {
    appendStartCode(output);
    const ByteView unit = data.subspan(position, length);
    output.insert(output.end(), unit.begin(), unit.end());
  });
  if (failure) return *failure;
  return output;
}

AccessUnitResult assemble(const EncodedSample& sample, StreamVideoCodec codec) {
  AccessUnit unit;
  unit.isKeyframe = sample.isKeyframe.value_or(true);
  int nalHeaderLength = kLengthPrefix;
  if (unit.isKeyframe && sample.format) {
    auto sets = parameterSets(*sample.format, codec);
    if (auto* failure = std::get_if<KestruneError>(&sets)) return std::move(*failure);
    auto& read = std::get<ParameterSets>(sets);
    unit.payload = std::move(read.bytes);
    nalHeaderLength = read.nalHeaderLength;
  }

  if (!sample.data) return H264AnnexBError(H264AnnexBError::Case::missingDataBuffer);
  const std::size_t begin = unit.payload.size();
  unit.payload.resize(begin + sample.data->length());
  const auto data = std::span(unit.payload).subspan(begin);
  if (const MediaStatus status = sample.data->copy(0, data); status != 0) {
    return H264AnnexBError::blockBufferReadFailed(status);
  }
  if (nalHeaderLength == kLengthPrefix) {
    const auto failure = forEachUnit(data, nalHeaderLength, [data](std::size_t position, std::size_t) {
      std::ranges::copy(kStartCode, data.subspan(position - kStartCode.size()).begin());
    });
    if (failure) return *failure;
    return unit;
  }
  auto units = annexBUnits(data, nalHeaderLength);
  if (const auto* failure = std::get_if<H264AnnexBError>(&units)) return *failure;
  unit.payload.resize(begin);
  const Bytes& converted = std::get<Bytes>(units);
  unit.payload.insert(unit.payload.end(), converted.begin(), converted.end());
  return unit;
}

}  // namespace annexb
}  // namespace kestrune
