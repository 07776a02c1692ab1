#include "model/HostedCredentials.h"

#include <string_view>

#include "platform/support/Json.h"
#include "platform/support/Url.h"

namespace kestrune {

Bytes encodeHostedCredentials(const HostedSignalingCredentials& credentials) {
  const std::string text = serializeJson(JsonValue(JsonValue::Object{{"serviceURL", credentials.serviceURL},
                                                                     {"deviceID", credentials.deviceID},
                                                                     {"macToken", credentials.macToken},
                                                                     {"viewerToken", credentials.viewerToken},
                                                                     {"viewerURL", credentials.viewerURL}}));
  return Bytes(text.begin(), text.end());
}

std::optional<HostedSignalingCredentials> decodeHostedCredentials(ByteView stored) {
  const auto object =
      parseJson(std::string_view(reinterpret_cast<const char*>(stored.data()), stored.size()));
  if (!object) return std::nullopt;
  HostedSignalingCredentials credentials;
  const auto read = [&object](std::string_view name, std::string& field) {
    const JsonValue* value = object->find(name);
    const std::string* text = value ? value->string() : nullptr;
    if (text) field = *text;
    return text != nullptr;
  };
  const bool isComplete = read("serviceURL", credentials.serviceURL) &&
                          read("deviceID", credentials.deviceID) && read("macToken", credentials.macToken) &&
                          read("viewerToken", credentials.viewerToken) &&
                          read("viewerURL", credentials.viewerURL) && parseUrl(credentials.serviceURL) &&
                          parseUrl(credentials.viewerURL);
  if (!isComplete) return std::nullopt;
  return credentials;
}

}  // namespace kestrune
