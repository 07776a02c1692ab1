#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "model/KestruneError.h"
#include "model/StreamSettings.h"
#include "platform/Bytes.h"
#include "platform/CompressionSession.h"

namespace kestrune {

/// Why an encoded sample could not be packaged, for H.264 and H.265 alike. The parsers return it as a value;
/// it is an Error so that it can also be reported as one.
class H264AnnexBError final : public Error {
 public:
  enum class Case {
    blockBufferReadFailed,       // the sample's bytes could not be copied; carries the status
    invalidNALUnitHeaderLength,  // not in 1 to 4
    truncatedNALUnit,            // fewer bytes than the length prefix needs or announces
    emptyNALUnit,                // a length prefix of 0
    missingDataBuffer,           // the sample has no data
  };

  explicit H264AnnexBError(Case value) : value_(value) {}
  static H264AnnexBError blockBufferReadFailed(MediaStatus status);

  Case value() const { return value_; }
  /// Of blockBufferReadFailed; 0 otherwise.
  MediaStatus status() const { return status_; }
  /// A generic text with the number of the case; the error has no texts of its own.
  std::string localizedDescription() const override;
  const char* what() const noexcept override { return "H264AnnexBError"; }

  friend bool operator==(const H264AnnexBError& a, const H264AnnexBError& b) {
    return a.value_ == b.value_ && a.status_ == b.status_;
  }

 private:
  Case value_;
  MediaStatus status_ = 0;
};

/// The conversion of encoded samples, whose NAL units stand behind big-endian length prefixes and whose
/// parameter sets stand beside them, to the byte stream format of ITU-T H.264 Annex B (H.265 Annex B is the
/// same): every unit behind the four bytes 00 00 00 01, parameter sets in-line before every keyframe.
///
/// Pure functions of any thread. A failure ends the conversion of its sample: nothing is repaired or skipped.
namespace annexb {

/// The parameter sets of a format description, each behind a start code.
struct ParameterSets {
  Bytes bytes;
  int nalHeaderLength = 4;  // bytes of the length prefix in the sample
};

/// One access unit in Annex B form.
struct AccessUnit {
  Bytes payload;
  bool isKeyframe = false;
};

using ParameterSetsResult = std::variant<ParameterSets, KestruneError>;
using BytesResult = std::variant<Bytes, H264AnnexBError>;
using AccessUnitResult = std::variant<AccessUnit, H264AnnexBError, KestruneError>;

/// All parameter sets in the order of the description; an `operationFailed` with the status otherwise.
ParameterSetsResult parameterSets(const VideoFormatDescription& format, StreamVideoCodec codec);

/// Replaces each length prefix of `nalHeaderLength` bytes (1 to 4) by a start code. Nothing in, nothing out.
BytesResult annexBUnits(ByteView data, int nalHeaderLength);

/// The whole of one sample: parameter sets if it is a keyframe with a format description, then its units.
/// Samples without one of these are read with length prefixes of 4 bytes. A sample whose encoder does not say
/// that it is no keyframe is one. With prefixes of 4 bytes the sample's bytes are copied once.
AccessUnitResult assemble(const EncodedSample& sample, StreamVideoCodec codec);

}  // namespace annexb
}  // namespace kestrune
