#include "platform/linux/credentials/CredentialMessages.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace kestrune::linux_platform {
namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kLargestMessage = kLargestCredentialData + 2 * kLongestCredentialName + 64;

void putNumber(Bytes& bytes, std::uint32_t number) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(number >> shift));
}

template <class Piece>
void putPiece(Bytes& bytes, const Piece& piece) {
  putNumber(bytes, static_cast<std::uint32_t>(piece.size()));
  bytes.insert(bytes.end(), piece.begin(), piece.end());
}

std::uint32_t numberAt(ByteView bytes) {
  std::uint32_t number = 0;
  for (std::size_t index = 0; index < kLengthBytes; ++index) number = number << 8 | bytes[index];
  return number;
}

/// Takes pieces off the front; once something is missing, every further piece is missing too.
class Reader {
 public:
  explicit Reader(ByteView bytes) : rest_(bytes) {}

  std::optional<std::uint8_t> byte() {
    const auto piece = take(1);
    if (!piece) return {};
    return piece->front();
  }
  std::optional<std::uint32_t> number() {
    const auto piece = take(kLengthBytes);
    if (!piece) return {};
    return numberAt(*piece);
  }
  template <class Piece>
  std::optional<Piece> piece() {
    const auto length = number();
    const auto content = length ? take(*length) : std::nullopt;
    if (!content) return {};
    return Piece(content->begin(), content->end());
  }
  bool isAtEnd() const { return !isBroken_ && rest_.empty(); }

 private:
  std::optional<ByteView> take(std::size_t count) {
    if (isBroken_ || rest_.size() < count) {
      isBroken_ = true;
      return {};
    }
    const ByteView piece = rest_.first(count);
    rest_ = rest_.subspan(count);
    return piece;
  }

  ByteView rest_;
  bool isBroken_ = false;
};

bool receiveAll(int socket, std::span<std::uint8_t> destination) {
  while (!destination.empty()) {
    const ssize_t count = recv(socket, destination.data(), destination.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    destination = destination.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

Bytes encode(const CredentialRequest& request) {
  Bytes bytes{static_cast<std::uint8_t>(request.operation)};
  putPiece(bytes, request.service);
  putPiece(bytes, request.account);
  putPiece(bytes, request.data);
  return bytes;
}

Bytes encode(const CredentialReply& reply) {
  Bytes bytes{static_cast<std::uint8_t>(reply.data.has_value())};
  putNumber(bytes, static_cast<std::uint32_t>(reply.status));
  putPiece(bytes, reply.data.value_or(Bytes()));
  return bytes;
}

std::optional<CredentialRequest> decodeCredentialRequest(ByteView bytes) {
  Reader reader(bytes);
  const auto operation = reader.byte();
  auto service = reader.piece<std::string>();
  auto account = reader.piece<std::string>();
  auto data = reader.piece<Bytes>();
  if (!operation || !service || !account || !data || !reader.isAtEnd()) return {};
  if (*operation < static_cast<std::uint8_t>(CredentialOperation::read) ||
      *operation > static_cast<std::uint8_t>(CredentialOperation::remove)) {
    return {};
  }
  CredentialRequest request{static_cast<CredentialOperation>(*operation), std::move(*service),
                            std::move(*account), std::move(*data)};
  if (!request.isWithinLimits()) return {};
  return request;
}

std::optional<CredentialReply> decodeCredentialReply(ByteView bytes) {
  Reader reader(bytes);
  const auto hasData = reader.byte();
  const auto status = reader.number();
  auto data = reader.piece<Bytes>();
  if (!hasData || *hasData > 1 || !status || !data || !reader.isAtEnd()) return {};
  CredentialReply reply{static_cast<CredentialStatus>(*status), std::nullopt};
  if (*hasData) reply.data = std::move(*data);
  return reply;
}

bool sendCredentialMessage(int socket, ByteView message) {
  Bytes framed;
  framed.reserve(kLengthBytes + message.size());
  putPiece(framed, message);
  ByteView rest = framed;
  while (!rest.empty()) {
    const ssize_t count = send(socket, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    rest = rest.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

std::optional<Bytes> receiveCredentialMessage(int socket) {
  std::array<std::uint8_t, kLengthBytes> length{};
  if (!receiveAll(socket, length)) return {};
  const std::size_t size = numberAt(length);
  if (size > kLargestMessage) return {};
  Bytes message(size);
  if (!receiveAll(socket, message)) return {};
  return message;
}

}  // namespace kestrune::linux_platform
