#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "model/HostedSignalingError.h"
#include "platform/HTTPClient.h"
#include "platform/support/Json.h"
#include "runtime/Task.h"

namespace kestrune {

/// What the requests to the hosted service have in common: each is a POST with at most a JSON body, answered
/// with a JSON object, or with {"error": text} where it failed.

/// A POST without a body. Throws HostedSignalingError::Case::invalidServiceURL if `path` cannot be appended
/// to `serviceURL`.
HTTPClientRequest hostedRequest(std::string_view serviceURL, std::string_view path);
void setJsonBody(HTTPClientRequest& request, std::string_view headerName, const JsonValue& body);

/// Throws what the client failed with, or HostedSignalingError::Case::invalidResponse where the answer has no
/// HTTP status.
Task<HTTPClientResponse> sendHostedRequest(std::shared_ptr<HTTPClient> client, HTTPClientRequest request);

/// The body as a JSON object; throws HostedSignalingError::Case::invalidResponse if it is none.
JsonValue hostedObject(const HTTPClientResponse& response);
/// The text, or the URL, that is the member `name` of `object`; throws
/// HostedSignalingError::Case::invalidResponse if there is none.
std::string hostedText(const JsonValue& object, std::string_view name);
std::string hostedURL(const JsonValue& object, std::string_view name);

/// The failure that an answer without success stands for: the service's own text if it has one, else
/// `fallback`.
HostedSignalingError hostedRejection(const HTTPClientResponse& response, const std::string& fallback);

}  // namespace kestrune
