#include "platform/support/Url.h"

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

namespace kestrune {
namespace {

namespace urls = boost::urls;

auto parse(std::string_view text) {
  return urls::parse_uri(urls::string_view(text.data(), text.size()));
}

}  // namespace

std::optional<UrlParts> parseUrl(std::string_view text) {
  const auto url = parse(text);
  if (!url) return {};
  UrlParts parts;
  parts.scheme = url->scheme();
  parts.host = url->host();
  parts.path = url->path();
  if (url->encoded_query().empty()) return parts;
  urls::encoding_opts options;
  options.space_as_plus = false;  // a plus is a plus in a URI; only form submissions read it as a space
  for (const auto& item : url->params(options)) {
    auto& [name, value] = parts.queryItems.emplace_back(std::string(item.key), std::nullopt);
    if (item.has_value) value = std::string(item.value);
  }
  return parts;
}

std::optional<std::string> urlWithFragment(std::string_view url, std::string_view fragment) {
  const auto parsed = parse(url);
  if (!parsed) return {};
  urls::url changed(*parsed);
  changed.set_fragment(urls::string_view(fragment.data(), fragment.size()));
  return std::string(changed.buffer());
}

}  // namespace kestrune
