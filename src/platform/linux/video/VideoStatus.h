#pragma once

#include "platform/CompressionSession.h"

namespace kestrune::linux_platform {

/// Why a compression session refuses. The numbers are part of the messages that users see and search for.
inline constexpr MediaStatus kPropertyNotSupported = -12900;
inline constexpr MediaStatus kParameterError = -12902;
inline constexpr MediaStatus kInvalidSession = -12903;
inline constexpr MediaStatus kAllocationFailed = -12904;
inline constexpr MediaStatus kCouldNotFindVideoEncoder = -12908;
inline constexpr MediaStatus kVideoEncoderMalfunction = -12912;

}  // namespace kestrune::linux_platform
