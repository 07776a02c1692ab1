#include "server/WebSocketCodec.h"

#include <algorithm>
#include <array>
#include <utility>

#include "viewer/BigEndian.h"

namespace kestrune {
namespace {

constexpr std::uint8_t kFin = 0x80;
constexpr std::uint8_t kReservedBits = 0x70;
constexpr std::uint8_t kMasked = 0x80;
constexpr std::size_t kMaskSize = 4;
constexpr std::size_t kMaximumCloseReason = 123;
// In the order of WebSocketOpcode.
constexpr std::array<std::uint8_t, 6> kWireOpcodes{0x0, 0x1, 0x2, 0x8, 0x9, 0xA};

std::optional<WebSocketOpcode> opcodeOf(std::uint8_t firstByte) {
  const auto found = std::find(kWireOpcodes.begin(), kWireOpcodes.end(), firstByte & 0x0F);
  if (found == kWireOpcodes.end()) return std::nullopt;
  return static_cast<WebSocketOpcode>(found - kWireOpcodes.begin());
}

std::size_t frameHeaderSize(std::size_t payloadSize) {
  return payloadSize < 126 ? 2 : payloadSize < 65'536 ? 4 : 10;
}

void writeFrameHeader(std::uint8_t* out, std::size_t payloadSize, WebSocketOpcode opcode) {
  out[0] = static_cast<std::uint8_t>(kFin | kWireOpcodes.at(static_cast<std::size_t>(opcode)));
  switch (frameHeaderSize(payloadSize)) {
    case 2:
      out[1] = static_cast<std::uint8_t>(payloadSize);
      break;
    case 4:
      out[1] = 126;
      writeBigEndian<std::uint16_t>(out + 2, static_cast<std::uint16_t>(payloadSize));
      break;
    default:
      out[1] = 127;
      writeBigEndian<std::uint64_t>(out + 2, payloadSize);
  }
}

}  // namespace

WebSocketParseResult parseFrame(ReceiveBuffer& buffer) {
  const auto bytes = buffer.view();
  if (bytes.size() < 2) return WebSocketNeedsMore{};
  const auto opcode = opcodeOf(bytes[0]);
  if ((bytes[0] & kReservedBits) != 0 || !opcode) return WebSocketCodecError::invalidFrame;
  if ((bytes[1] & kMasked) == 0) return WebSocketCodecError::unmaskedClientFrame;

  std::size_t payloadSize = bytes[1] & 0x7F;
  std::size_t headerSize = 2;
  if (payloadSize == 127) {
    headerSize = 10;
    if (bytes.size() < headerSize) return WebSocketNeedsMore{};
    const auto declared = readBigEndian<std::uint64_t>(bytes.data() + 2);
    if (declared > kMaximumClientPayload) return WebSocketCodecError::payloadTooLarge;
    payloadSize = static_cast<std::size_t>(declared);
  } else if (payloadSize == 126) {
    headerSize = 4;
    if (bytes.size() < headerSize) return WebSocketNeedsMore{};
    payloadSize = readBigEndian<std::uint16_t>(bytes.data() + 2);
  }
  if (bytes.size() < headerSize + kMaskSize + payloadSize) return WebSocketNeedsMore{};

  const auto mask = bytes.subspan(headerSize, kMaskSize);
  const auto masked = bytes.subspan(headerSize + kMaskSize, payloadSize);
  WebSocketFrame frame{(bytes[0] & kFin) != 0, *opcode, Bytes(payloadSize)};
  for (std::size_t index = 0; index < payloadSize; ++index) {
    frame.payload[index] = masked[index] ^ mask[index % kMaskSize];
  }
  buffer.consume(headerSize + kMaskSize + payloadSize);
  return frame;
}

GatheredBytes encodeFrame(GatheredBytes payload, WebSocketOpcode opcode) {
  const auto payloadSize = payload.size();
  const auto headerSize = frameHeaderSize(payloadSize);
  payload.head.insert(payload.head.begin(), headerSize, std::uint8_t{0});
  writeFrameHeader(payload.head.data(), payloadSize, opcode);
  return payload;
}

GatheredBytes encodeFrame(ByteView payload, WebSocketOpcode opcode) {
  const auto headerSize = frameHeaderSize(payload.size());
  GatheredBytes frame;
  frame.head.reserve(headerSize + payload.size());
  frame.head.resize(headerSize);
  writeFrameHeader(frame.head.data(), payload.size(), opcode);
  frame.head.insert(frame.head.end(), payload.begin(), payload.end());
  return frame;
}

GatheredBytes encodeCloseFrame(WebSocketClose close) {
  const auto reason = close.reason.substr(0, kMaximumCloseReason);
  Bytes payload(2);
  writeBigEndian(payload.data(), close.code);
  payload.insert(payload.end(), reason.begin(), reason.end());
  return encodeFrame(payload, WebSocketOpcode::close);
}

}  // namespace kestrune
