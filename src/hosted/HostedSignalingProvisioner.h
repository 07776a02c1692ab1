#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "model/HostedCredentials.h"
#include "platform/HTTPClient.h"
#include "runtime/Task.h"

namespace kestrune {

/// A sign-in that its user has yet to approve in a browser. `pollToken` is a secret.
struct HostedDeviceAuthorization {
  std::string authorizationID;
  std::string pollToken;
  std::string verificationURL;
  std::int64_t expiresAtMilliseconds = 0;  // since 1970
};

/// Links this machine to an account of the hosted service (a device authorization in the manner of RFC 8628).
/// Stateless; tasks resume on the queue that started them. They throw HostedSignalingError, or what the HTTP
/// client failed with. Nothing is repeated here.
namespace HostedSignalingProvisioner {

/// `text` as a base address: http or https with a host, no slash at its end, no query and no fragment.
std::optional<std::string> normalizedServiceURL(std::string_view text);

/// `serviceURL` is normalized.
Task<HostedDeviceAuthorization> startDeviceAuthorization(std::shared_ptr<HTTPClient> client,
                                                         std::string serviceURL);
/// Nothing while the approval is pending.
Task<std::optional<HostedSignalingCredentials>> pollDeviceAuthorization(
    std::shared_ptr<HTTPClient> client, std::string serviceURL, HostedDeviceAuthorization authorization);

}  // namespace HostedSignalingProvisioner

}  // namespace kestrune
