#include "browser/StartPage.h"

#include <algorithm>
#include <array>

#include "platform/support/Url.h"

namespace kestrune {
namespace {

/// Blanks and line breaks in UTF-8: what is pasted brings more of them than ASCII has.
constexpr std::array<std::string_view, 25> kBlanks = {
    " ",      "\t",     "\n",     "\v",     "\f",     "\r",     "\xC2\x85", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006",   "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

std::string_view withoutBlanksAround(std::string_view text) {
  const auto begins = [&](std::string_view blank) { return text.starts_with(blank); };
  const auto ends = [&](std::string_view blank) { return text.ends_with(blank); };
  for (auto blank = kBlanks.begin(); (blank = std::ranges::find_if(kBlanks, begins)) != kBlanks.end();) {
    text.remove_prefix(blank->size());
  }
  for (auto blank = kBlanks.begin(); (blank = std::ranges::find_if(kBlanks, ends)) != kBlanks.end();) {
    text.remove_suffix(blank->size());
  }
  return text;
}

bool isWebScheme(std::string scheme) {
  std::ranges::transform(scheme, scheme.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return scheme == "http" || scheme == "https";
}

}  // namespace

std::optional<std::string> normalizedBrowserURL(std::string_view text) {
  const std::string_view trimmed = withoutBlanksAround(text);
  if (trimmed.empty()) return {};
  std::string address(trimmed);
  if (trimmed.find("://") == std::string_view::npos) address.insert(0, "https://");
  const auto parts = parseUrl(address);
  if (!parts || !isWebScheme(parts->scheme) || parts->host.empty()) return {};
  return address;
}

}  // namespace kestrune
