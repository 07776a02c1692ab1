#pragma once

#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace kestrune {

/// What links this machine to an account of a hosted service. Both tokens are secrets.
struct HostedSignalingCredentials {
  std::string serviceURL;  // the base that the others came from, without a slash at its end
  std::string deviceID;
  std::string macToken;     // of this machine, for the device socket and reports
  std::string viewerToken;  // of its viewers
  std::string viewerURL;    // where a viewer opens the page, with its secret in the fragment
  friend bool operator==(const HostedSignalingCredentials&, const HostedSignalingCredentials&) = default;
};

/// The stored form: a JSON object with the names of the fields.
Bytes encodeHostedCredentials(const HostedSignalingCredentials& credentials);
/// Nothing if `stored` is not one, with all five fields.
std::optional<HostedSignalingCredentials> decodeHostedCredentials(ByteView stored);

}  // namespace kestrune
