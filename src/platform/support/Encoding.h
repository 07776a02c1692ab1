#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace kestrune {

/// Standard base64 with padding (RFC 4648 §4).
std::string base64Encode(ByteView bytes);
/// Strict: right length, right padding, no other characters; nothing otherwise.
std::optional<Bytes> base64Decode(std::string_view text);

std::array<std::uint8_t, 20> sha1(ByteView bytes);

bool isValidUtf8(std::string_view text);
/// `text` with U+FFFD in place of what is no UTF-8.
std::string replacingInvalidUtf8(std::string_view text);
/// UTF-8 to UTF-16; invalid sequences become U+FFFD.
std::u16string utf16(std::string_view text);
/// The extended grapheme clusters of a UTF-8 text (UAX #29), in order, together the whole text.
std::vector<std::string_view> graphemeClusters(std::string_view text);

}  // namespace kestrune
