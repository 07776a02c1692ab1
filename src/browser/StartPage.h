#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The http or https address that `text`, as a user wrote it, stands for: without blanks around it, and with
/// "https://" in front where it names no scheme. Nothing if it is no such address (RFC 3986) or has no host.
/// The result never begins with a dash.
std::optional<std::string> normalizedBrowserURL(std::string_view text);

}  // namespace kestrune
