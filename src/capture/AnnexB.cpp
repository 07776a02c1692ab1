#include "capture/AnnexB.h"

#include <array>
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

}  // namespace

bool isKeyframe(const EncodedSample& sample) {
  if (!sample.attachments || sample.attachments->empty()) return true;
  const auto& notSync = sample.attachments->front().notSync;
  if (!notSync) return true;
  const bool* value = std::get_if<bool>(&*notSync);
  return value == nullptr || !*value;
}

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

BytesResult sampleData(const EncodedSample& sample) {
  if (!sample.data) return H264AnnexBError(H264AnnexBError::Case::missingDataBuffer);
  Bytes bytes(sample.data->length());
  if (const MediaStatus status = sample.data->copy(0, bytes); status != 0) {
    return H264AnnexBError::blockBufferReadFailed(status);
  }
  return bytes;
}

BytesResult annexBUnits(ByteView data, int nalHeaderLength) {
  using Case = H264AnnexBError::Case;
  if (nalHeaderLength < 1 || nalHeaderLength > 4) return H264AnnexBError(Case::invalidNALUnitHeaderLength);
  const auto prefix = static_cast<std::size_t>(nalHeaderLength);

  Bytes output;
  output.reserve(data.size());
  while (!data.empty()) {
    if (data.size() < prefix) return H264AnnexBError(Case::truncatedNALUnit);
    std::size_t length = 0;
    for (const std::uint8_t byte : data.first(prefix)) length = length << 8 | byte;
    if (length == 0) return H264AnnexBError(Case::emptyNALUnit);
    data = data.subspan(prefix);
    if (length > data.size()) return H264AnnexBError(Case::truncatedNALUnit);
    appendStartCode(output);
    const ByteView unit = data.first(length);
    output.insert(output.end(), unit.begin(), unit.end());
    data = data.subspan(length);
  }
  return output;
}

AccessUnitResult assemble(const EncodedSample& sample, StreamVideoCodec codec) {
  AccessUnit unit;
  unit.isKeyframe = isKeyframe(sample);
  int nalHeaderLength = 4;
  if (unit.isKeyframe && sample.format) {
    auto sets = parameterSets(*sample.format, codec);
    if (auto* failure = std::get_if<KestruneError>(&sets)) return std::move(*failure);
    auto& read = std::get<ParameterSets>(sets);
    unit.payload = std::move(read.bytes);
    nalHeaderLength = read.nalHeaderLength;
  }

  const auto data = sampleData(sample);
  if (const auto* failure = std::get_if<H264AnnexBError>(&data)) return *failure;
  auto units = annexBUnits(std::get<Bytes>(data), nalHeaderLength);
  if (const auto* failure = std::get_if<H264AnnexBError>(&units)) return *failure;

  Bytes& converted = std::get<Bytes>(units);
  if (unit.payload.empty()) {
    unit.payload = std::move(converted);
  } else {
    unit.payload.insert(unit.payload.end(), converted.begin(), converted.end());
  }
  return unit;
}

}  // namespace annexb
}  // namespace kestrune
