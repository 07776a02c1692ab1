#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <thread>

#include "platform/linux/credentials/CredentialMessages.h"
#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {
namespace {

TEST(CredentialMessages, RefuseEveryOtherForm) {
  const Bytes request = encode(CredentialRequest{CredentialOperation::write, "s", "a", {1}});
  const Bytes reply = encode(CredentialReply{0, Bytes{1, 2}});
  for (std::size_t length = 0; length < request.size(); ++length) {
    EXPECT_FALSE(decodeCredentialRequest(ByteView(request).first(length))) << length;
    EXPECT_FALSE(length < reply.size() && decodeCredentialReply(ByteView(reply).first(length))) << length;
  }
  const auto isRefused = [request](std::size_t index, std::uint8_t byte) {
    Bytes changed = request;
    changed.resize(std::max(changed.size(), index + 1));
    changed[index] = byte;
    return !decodeCredentialRequest(changed);
  };
  EXPECT_TRUE(isRefused(request.size(), 0));                             // longer
  EXPECT_TRUE(isRefused(0, 0) && isRefused(0, 4) && isRefused(0, 255));  // no such operation
  EXPECT_TRUE(isRefused(1, 0xFF));                                       // a huge length of the service
  EXPECT_FALSE(decodeCredentialRequest(encode(
      CredentialRequest{CredentialOperation::read, std::string(kLongestCredentialName + 1, 's'), "a", {}})));
}

TEST(CredentialMessages, AnnouncedLengthsAreChecked) {
  std::array<int, 2> pair{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
  const UniqueDescriptor ours(pair[0]);
  UniqueDescriptor theirs(pair[1]);
  // Longer than any message: refused from the length alone, while the other side is still there.
  const std::array<std::uint8_t, 4> length{0x7F, 0xFF, 0xFF, 0xFF};
  ASSERT_EQ(send(theirs.get(), length.data(), length.size(), 0), 4);
  EXPECT_FALSE(receiveCredentialMessage(ours.get()));
  // Cut off in the middle.
  const std::array<std::uint8_t, 6> part{0, 0, 0, 9, 1, 2};
  ASSERT_EQ(send(theirs.get(), part.data(), part.size(), 0), 6);
  theirs.reset();
  EXPECT_FALSE(receiveCredentialMessage(ours.get()));
}

}  // namespace
}  // namespace kestrune::linux_platform
