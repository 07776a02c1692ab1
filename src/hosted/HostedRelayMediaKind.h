#pragma once

namespace kestrune {

enum class HostedRelayMediaKind { video, audio };

}  // namespace kestrune
