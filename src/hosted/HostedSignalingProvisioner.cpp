#include "hosted/HostedSignalingProvisioner.h"

#include <utility>

#include "hosted/HostedExchange.h"
#include "platform/Bundle.h"
#include "platform/support/Url.h"

namespace kestrune::HostedSignalingProvisioner {
namespace {

using Case = HostedSignalingError::Case;

constexpr std::string_view kAuthorizations = "/api/account/device-authorizations";
constexpr std::string_view kStatus = "/api/account/device-authorizations/status";
/// White space and line ends of ASCII, of which a pasted address may have some around it.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

/// A member that may be absent or null, but is a text otherwise.
std::optional<std::string> optionalText(const JsonValue& object, std::string_view name) {
  const JsonValue* value = object.find(name);
  if (!value || value->isNull()) return {};
  return hostedText(object, name);
}

std::optional<HostedSignalingCredentials> readStatus(const HTTPClientResponse& response,
                                                     std::string serviceURL) {
  const JsonValue object = hostedObject(response);
  const std::string status = hostedText(object, "status");
  auto deviceID = optionalText(object, "deviceID");
  auto macToken = optionalText(object, "macToken");
  auto viewerToken = optionalText(object, "viewerToken");
  auto viewerURL = optionalText(object, "viewerURL");
  if (viewerURL) hostedURL(object, "viewerURL");
  if (status == "pending") return {};
  if (status != "approved" || !deviceID || !macToken || !viewerToken || !viewerURL) {
    throw HostedSignalingError(Case::invalidResponse);
  }
  return HostedSignalingCredentials{.serviceURL = std::move(serviceURL),
                                    .deviceID = std::move(*deviceID),
                                    .macToken = std::move(*macToken),
                                    .viewerToken = std::move(*viewerToken),
                                    .viewerURL = std::move(*viewerURL)};
}

}  // namespace

std::optional<std::string> normalizedServiceURL(std::string_view text) {
  const auto first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return normalizedBaseUrl(text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1));
}

Task<HostedDeviceAuthorization> startDeviceAuthorization(std::shared_ptr<HTTPClient> client,
                                                         std::string serviceURL) {
  HTTPClientRequest request = hostedRequest(serviceURL, kAuthorizations);
  const HTTPClientResponse response = co_await sendHostedRequest(std::move(client), std::move(request));
  if (response.status != 201) {
    throw hostedRejection(response, localized("Could not start Kestrune sign-in."));
  }
  const JsonValue object = hostedObject(response);
  const JsonValue* expiry = object.find("expiresAt");
  const auto expiresAt = expiry ? expiry->integer() : std::nullopt;
  if (!expiresAt) throw HostedSignalingError(Case::invalidResponse);
  co_return HostedDeviceAuthorization{.authorizationID = hostedText(object, "authorizationID"),
                                      .pollToken = hostedText(object, "pollToken"),
                                      .verificationURL = hostedURL(object, "verificationURL"),
                                      .expiresAtMilliseconds = *expiresAt};
}

Task<std::optional<HostedSignalingCredentials>> pollDeviceAuthorization(
    std::shared_ptr<HTTPClient> client, std::string serviceURL, HostedDeviceAuthorization authorization) {
  HTTPClientRequest request = hostedRequest(serviceURL, kStatus);
  setJsonBody(request, "Content-Type",
              JsonValue::Object{{"authorizationID", authorization.authorizationID},
                                {"pollToken", authorization.pollToken}});
  const HTTPClientResponse response = co_await sendHostedRequest(std::move(client), std::move(request));
  if (response.status == 404) throw HostedSignalingError(Case::authorizationExpired);
  if (response.status != 200) {
    throw hostedRejection(response, localized("Could not finish Kestrune sign-in."));
  }
  co_return readStatus(response, std::move(serviceURL));
}

}  // namespace kestrune::HostedSignalingProvisioner
