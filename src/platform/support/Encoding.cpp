#include "platform/support/Encoding.h"

#include <openssl/evp.h>
#include <utf8proc.h>

#include <limits>
#include <stdexcept>

namespace kestrune {
namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kLongestBase64 = std::numeric_limits<int>::max() / 2;  // the library counts in int
constexpr utf8proc_int32_t kReplacement = 0xFFFD;

struct Scalar {
  utf8proc_int32_t value;  // -1 for a byte that begins no valid sequence
  std::size_t length;
};

Scalar scalarAt(std::string_view text, std::size_t position) {
  utf8proc_int32_t value = -1;
  const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + position,
                                       static_cast<utf8proc_ssize_t>(text.size() - position), &value);
  if (length <= 0) return {-1, 1};
  return {value, static_cast<std::size_t>(length)};
}

}  // namespace

std::string base64Encode(ByteView bytes) {
  if (bytes.size() > kLongestBase64) throw std::length_error("too long for base64");
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // the library adds a NUL
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0 || text.size() > kLongestBase64) return {};
  if (text.empty()) return Bytes();
  const auto end = text.find_last_not_of('=');
  if (end == std::string_view::npos) return {};
  const std::size_t padding = text.size() - end - 1;
  if (padding > 2 || text.substr(0, end + 1).find_first_not_of(kBase64Alphabet) != std::string_view::npos) {
    return {};
  }
  Bytes bytes(text.size() / 4 * 3);
  const int length = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) return {};
  bytes.resize(static_cast<std::size_t>(length) - padding);  // padding decodes to zero bytes
  return bytes;
}

std::array<std::uint8_t, 20> sha1(ByteView bytes) {
  std::array<std::uint8_t, 20> digest{};
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha1(), nullptr) != 1) {
    throw std::runtime_error("SHA-1 is not available");
  }
  return digest;
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t position = 0; position < text.size();) {
    if (static_cast<unsigned char>(text[position]) < 0x80) {
      ++position;
      continue;
    }
    const Scalar scalar = scalarAt(text, position);
    if (scalar.value < 0) return false;
    position += scalar.length;
  }
  return true;
}

std::string replacingInvalidUtf8(std::string_view text) {
  std::string result;
  for (std::size_t position = 0; position < text.size();) {
    const Scalar scalar = scalarAt(text, position);
    result.append(scalar.value < 0 ? "\xEF\xBF\xBD" : text.substr(position, scalar.length));
    position += scalar.length;
  }
  return result;
}

std::u16string utf16(std::string_view text) {
  std::u16string result;
  for (std::size_t position = 0; position < text.size();) {
    const Scalar scalar = scalarAt(text, position);
    position += scalar.length;
    const auto value = static_cast<std::uint32_t>(scalar.value < 0 ? kReplacement : scalar.value);
    if (value < 0x10000) {
      result.push_back(static_cast<char16_t>(value));
    } else {
      result.push_back(static_cast<char16_t>(0xD7C0 + (value >> 10)));
      result.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    }
  }
  return result;
}

std::vector<std::string_view> graphemeClusters(std::string_view text) {
  std::vector<std::string_view> clusters;
  utf8proc_int32_t previous = -1;
  utf8proc_int32_t state = 0;
  std::size_t start = 0;
  for (std::size_t position = 0; position < text.size();) {
    const Scalar scalar = scalarAt(text, position);
    const utf8proc_int32_t value = scalar.value < 0 ? kReplacement : scalar.value;
    if (position > 0 && utf8proc_grapheme_break_stateful(previous, value, &state)) {
      clusters.push_back(text.substr(start, position - start));
      start = position;
    }
    previous = value;
    position += scalar.length;
  }
  if (start < text.size()) clusters.push_back(text.substr(start));
  return clusters;
}

}  // namespace kestrune
