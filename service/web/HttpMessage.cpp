#include "web/HttpMessage.h"

#include <algorithm>

namespace kestrune::service {
namespace {

char lowerCased(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return lowerCased(x) == lowerCased(y); });
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

HttpResponse uncached(int status, std::string_view contentType, std::string body) {
  return {
      status, {{"Content-Type", std::string(contentType)}, {"Cache-Control", "no-store"}}, std::move(body)};
}

}  // namespace

const std::string* HttpRequest::header(std::string_view name) const {
  const auto found =
      std::ranges::find_if(headers, [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
  return found == headers.end() ? nullptr : &found->second;
}

const std::string* HttpRequest::queryItem(std::string_view name) const {
  const auto found = std::ranges::find_if(query, [&](const auto& item) { return item.first == name; });
  return found == query.end() ? nullptr : &found->second;
}

std::optional<std::string> HttpRequest::cookie(std::string_view name) const {
  std::optional<std::string> found;
  for (const auto& [field, value] : headers) {
    if (!equalsIgnoringCase(field, "cookie")) continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      const auto end = std::min(rest.find(';'), rest.size());
      const auto pair = trimmed(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
      const auto equals = pair.find('=');
      if (equals == std::string_view::npos || pair.substr(0, equals) != name) continue;
      // Two of one name: one of them was planted by another site of the same host.
      if (found) return std::nullopt;
      found = pair.substr(equals + 1);
    }
  }
  return found;
}

std::optional<std::string> HttpRequest::bearerToken() const {
  constexpr std::string_view kScheme = "Bearer ";
  const auto* value = header("authorization");
  if (!value || !equalsIgnoringCase(std::string_view(*value).substr(0, kScheme.size()), kScheme)) {
    return std::nullopt;
  }
  return std::string(trimmed(std::string_view(*value).substr(kScheme.size())));
}

HttpResponse jsonResponse(int status, const JsonValue& value) {
  return uncached(status, "application/json", serializeJson(value));
}

HttpResponse errorResponse(int status, std::string_view text) {
  return jsonResponse(status, JsonValue::Object{{"error", text}});
}

HttpResponse htmlResponse(int status, std::string html) {
  return uncached(status, "text/html; charset=utf-8", std::move(html));
}

HttpResponse redirectResponse(std::string location) {
  return {303, {{"Location", std::move(location)}, {"Cache-Control", "no-store"}}, {}};
}

}  // namespace kestrune::service
