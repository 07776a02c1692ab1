#include "platform/support/Url.h"

#include <algorithm>
#include <boost/url/encode.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/rfc/pchars.hpp>
#include <boost/url/url.hpp>

namespace kestrune {
namespace {

namespace urls = boost::urls;

auto parse(std::string_view text) {
  return urls::parse_uri(urls::string_view(text.data(), text.size()));
}

constexpr std::size_t kMaximumBaseLength = 2048;

/// An address that a connection can be made to without a second reading of the host or the port.
bool hasPlainAuthority(const urls::url_view& url) {
  if (!url.has_authority() || url.has_userinfo()) return false;
  if (url.has_port() && !url.port().empty() && url.port_number() == 0) return false;
  switch (url.host_type()) {
    case urls::host_type::ipv4:
    case urls::host_type::ipv6:
      return true;
    case urls::host_type::name:
      return !url.encoded_host().empty() && url.encoded_host().find('%') == urls::string_view::npos;
    default:
      return false;
  }
}

bool hasDotSegment(std::string_view path) {
  while (!path.empty()) {
    const auto segment = path.substr(0, path.find('/'));
    if (segment == "." || segment == "..") return true;
    path.remove_prefix(std::min(segment.size() + 1, path.size()));
  }
  return false;
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

std::optional<std::string> normalizedBaseUrl(std::string_view text) {
  if (text.size() > kMaximumBaseLength) return {};
  const auto parsed = parse(text);
  if (!parsed || !hasPlainAuthority(*parsed)) return {};
  const auto scheme = parsed->scheme_id();
  if (scheme != urls::scheme::http && scheme != urls::scheme::https) return {};
  urls::url url(*parsed);
  url.set_scheme_id(scheme);  // in lower case
  if (url.port().empty()) url.remove_port();
  std::string path(url.encoded_path());
  path.erase(path.find_last_not_of('/') + 1);
  path.erase(0, path.find_first_not_of('/'));
  url.set_encoded_path(path.empty() ? path : "/" + path);
  url.remove_query();
  url.remove_fragment();
  return std::string(url.buffer());
}

std::optional<std::string> urlByAppendingPath(std::string_view base, std::string_view path) {
  const auto parsed = parse(base);
  if (!parsed || !hasPlainAuthority(*parsed) || !path.starts_with('/') || hasDotSegment(path)) return {};
  urls::url url(*parsed);
  std::string whole(url.encoded_path());
  whole.erase(whole.find_last_not_of('/') + 1);
  whole += urls::encode(urls::string_view(path.data(), path.size()), urls::pchars + '/');
  url.set_encoded_path(whole);
  return std::string(url.buffer());
}

}  // namespace kestrune
