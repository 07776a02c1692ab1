#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

/// The client's side of the WebSocket, written for tests apart from the code under test.

/// RFC 6455 §1.3, with a list of connection options as browsers send it.
inline constexpr const char* kUpgradeRequest =
    "GET /stream HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: keep-alive, Upgrade\r\n"
    "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";

/// The first message of a viewer; `rest` are further members, each after a comma.
inline std::string authMessage(const std::string& token, const std::string& rest = {}) {
  return R"({"type":"auth","token":")" + token + "\"" + rest + "}";
}

/// A masked frame with `firstByte` (FIN and opcode) and a length in the shortest form, or in the 64-bit form.
inline std::string maskedFrame(std::uint8_t firstByte, std::string_view payload, bool longLength = false) {
  constexpr std::uint8_t kMask[4] = {0x11, 0x22, 0x33, 0x44};
  std::string frame(1, static_cast<char>(firstByte));
  const auto putLength = [&](std::uint8_t marker, int bytes) {
    frame += static_cast<char>(0x80 | marker);
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
      frame += static_cast<char>((payload.size() >> shift) & 0xFF);
    }
  };
  if (longLength || payload.size() > 0xFFFF) {
    putLength(127, 8);
  } else if (payload.size() >= 126) {
    putLength(126, 2);
  } else {
    frame += static_cast<char>(0x80 | payload.size());
  }
  frame.append(reinterpret_cast<const char*>(kMask), sizeof kMask);
  for (std::size_t index = 0; index < payload.size(); ++index) {
    frame += static_cast<char>(static_cast<std::uint8_t>(payload[index]) ^ kMask[index % 4]);
  }
  return frame;
}

inline std::string textFrame(std::string_view text) {
  return maskedFrame(0x81, text);
}

struct ServerFrame {
  std::uint8_t firstByte = 0;
  std::string payload;
};

/// Takes the whole frames off the front of `bytes`.
inline std::vector<ServerFrame> takeServerFrames(std::string& bytes) {
  std::vector<ServerFrame> frames;
  while (bytes.size() >= 2) {
    const auto at = [&bytes](std::size_t index) { return static_cast<std::uint8_t>(bytes.at(index)); };
    std::size_t header = 2;
    std::uint64_t size = at(1);
    if (size >= 126) {
      header += size == 126 ? 2 : 8;
      if (bytes.size() < header) break;
      size = 0;
      for (std::size_t index = 2; index < header; ++index) size = size << 8 | at(index);
    }
    if (bytes.size() < header + size) break;
    frames.push_back({at(0), bytes.substr(header, size)});
    bytes.erase(0, header + size);
  }
  return frames;
}

}  // namespace kestrune
