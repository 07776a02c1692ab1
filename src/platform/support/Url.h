#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrune {

/// The parts of a URL that the program reads (RFC 3986).
struct UrlParts {
  std::string scheme;  // as written
  std::string host;    // percent-decoded; empty where there is none
  std::string path;    // percent-decoded
  /// In order, percent-decoded; an item without "=" has no value.
  std::vector<std::pair<std::string, std::optional<std::string>>> queryItems;
};

/// Nothing if `text` is not a URL: spaces, control characters and broken percent escapes are refused.
std::optional<UrlParts> parseUrl(std::string_view text);

/// `url` with `fragment` (percent-encoded as needed) in place of any it has; nothing if `url` is not a URL.
std::optional<std::string> urlWithFragment(std::string_view url, std::string_view fragment);

/// `text` as a base address that paths can be appended to: http or https, a host, no query, no fragment, no
/// slash at its end. Nothing for any other text, nor for one with user information (which would end up in
/// logs), a port outside 1 to 65535, a host name with percent escapes, or more than 2048 bytes.
std::optional<std::string> normalizedBaseUrl(std::string_view text);

/// `base`, which is a URL with a host, with `path` behind its own path. `path` begins with a slash and is not
/// escaped yet: its slashes divide segments, and every other byte that is no path character (RFC 3986 §3.3)
/// is percent-encoded. So it names a place below `base` and nothing else; a path with a segment "." or ".."
/// is refused.
std::optional<std::string> urlByAppendingPath(std::string_view base, std::string_view path);

}  // namespace kestrune
