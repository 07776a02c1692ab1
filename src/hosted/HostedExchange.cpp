#include "hosted/HostedExchange.h"

#include <utility>

#include "platform/support/Url.h"

namespace kestrune {
namespace {

using Case = HostedSignalingError::Case;

std::optional<JsonValue> parseObject(const HTTPClientResponse& response) {
  const auto* text = reinterpret_cast<const char*>(response.body.data());
  auto value = parseJson(std::string_view(text, response.body.size()));
  if (value && !value->object()) value.reset();
  return value;
}

}  // namespace

HTTPClientRequest hostedRequest(std::string_view serviceURL, std::string_view path) {
  auto url = urlByAppendingPath(serviceURL, path);
  if (!url) throw HostedSignalingError(Case::invalidServiceURL);
  HTTPClientRequest request;
  request.method = "POST";
  request.url = std::move(*url);
  request.timeout = std::chrono::seconds(15);
  return request;
}

void setJsonBody(HTTPClientRequest& request, std::string_view headerName, const JsonValue& body) {
  request.headers.emplace_back(headerName, "application/json");
  const std::string text = serializeJson(body);
  request.body.assign(text.begin(), text.end());
}

Task<HTTPClientResponse> sendHostedRequest(std::shared_ptr<HTTPClient> client, HTTPClientRequest request) {
  auto send = [&client, &request](const Completion<HTTPClientResponse>& done) {
    client->send(std::move(request), [done](HTTPClientResponse response, const std::exception_ptr& failure) {
      if (failure) {
        done.fail(failure);
      } else {
        done(std::move(response));
      }
    });
  };
  HTTPClientResponse response = co_await awaitCallback<HTTPClientResponse>(std::move(send));
  if (response.status < 100) throw HostedSignalingError(Case::invalidResponse);
  co_return response;
}

JsonValue hostedObject(const HTTPClientResponse& response) {
  auto object = parseObject(response);
  if (!object) throw HostedSignalingError(Case::invalidResponse);
  return std::move(*object);
}

std::string hostedText(const JsonValue& object, std::string_view name) {
  const JsonValue* value = object.find(name);
  const std::string* text = value ? value->string() : nullptr;
  if (!text) throw HostedSignalingError(Case::invalidResponse);
  return *text;
}

std::string hostedURL(const JsonValue& object, std::string_view name) {
  std::string url = hostedText(object, name);
  if (!parseUrl(url)) throw HostedSignalingError(Case::invalidResponse);
  return url;
}

HostedSignalingError hostedRejection(const HTTPClientResponse& response, const std::string& fallback) {
  const auto object = parseObject(response);
  const JsonValue* error = object ? object->find("error") : nullptr;
  const std::string* text = error ? error->string() : nullptr;
  return HostedSignalingError::rejected(text ? *text : fallback);
}

}  // namespace kestrune
