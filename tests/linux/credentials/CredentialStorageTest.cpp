#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <numeric>

#include "platform/linux/credentials/CredentialVault.h"
#include "platform/linux/files/UniqueDescriptor.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

/// The file alone; what the Secret Service adds is tested against a real one.
class CredentialVaultTest : public testing::Test {
 protected:
  CredentialReply perform(CredentialOperation operation, const std::string& account, const Bytes& data = {}) {
    return vault_.perform({operation, "service", account, data});
  }
  CredentialReply read(const std::string& account) { return perform(CredentialOperation::read, account); }
  CredentialStatus write(const std::string& account, const Bytes& data) {
    return perform(CredentialOperation::write, account, data).status;
  }
  CredentialStatus remove(const std::string& account) {
    return perform(CredentialOperation::remove, account).status;
  }

  const TemporaryDirectory top_;
  const CapturedLog log_;
  const fs::path directory_ = top_.path() / "share" / "kestrune";
  const fs::path file_ = directory_ / "credentials.json";
  const CredentialVault vault_{directory_, [] { return nullptr; }};
};

TEST_F(CredentialVaultTest, KeepsItemsForThisUserAlone) {
  EXPECT_EQ(read("a").status, kCredentialNotFound);
  EXPECT_EQ(remove("a"), kCredentialNotFound);
  Bytes all(256);
  std::iota(all.begin(), all.end(), std::uint8_t{0});
  EXPECT_EQ(write("a", all), 0);
  EXPECT_EQ(write("b", {}), 0);
  EXPECT_EQ(write("b", {2}), 0);
  EXPECT_EQ(read("a").data, all);
  EXPECT_EQ(read("b").data, Bytes{2});
  EXPECT_EQ(remove("a"), 0);
  EXPECT_EQ(read("a").status, kCredentialNotFound);
  EXPECT_EQ(read("b").data, Bytes{2});
  EXPECT_EQ(modeOf(file_), 0600u);
  EXPECT_EQ(modeOf(directory_), 0700u);
}

TEST_F(CredentialVaultTest, ACorruptFileIsSetAside) {
  ASSERT_EQ(write("a", {1}), 0);
  const std::string good = readText(file_);
  const fs::path aside = directory_ / "credentials.json.invalid";
  for (const std::string& text : {good.substr(0, good.size() / 2), std::string("{}"), std::string("[]"),
                                  std::string(R"({"items":[{"service":"s"}]})"),
                                  std::string(R"({"items":[{"service":"s","account":"a","data":"?"}]})")}) {
    const CapturedLog log;
    writeText(file_, text);
    EXPECT_EQ(read("a").status, kCredentialNotFound) << text;
    EXPECT_EQ(write("b", {2}), 0);
    EXPECT_EQ(readText(aside), text);
    EXPECT_TRUE(log.mentions("set aside as credentials.json.invalid"));
    fs::remove(aside);
  }
}

TEST_F(CredentialVaultTest, AnItemOfAnUnreachableSecretServiceIsNotMissing) {
  writeText(file_, R"({"version":1,"items":[{"service":"service","account":"a"}]})");
  EXPECT_EQ(read("a").status, kCredentialNotAvailable);
  EXPECT_EQ(remove("a"), kCredentialNotAvailable);
  EXPECT_EQ(read("b").status, kCredentialNotFound);
  // What is written now is newer than what the Secret Service has.
  EXPECT_EQ(write("a", {9}), 0);
  EXPECT_EQ(read("a").data, Bytes{9});
  EXPECT_EQ(remove("a"), kCredentialNotAvailable);  // or the old one would come back with the service
  EXPECT_EQ(read("a").data, Bytes{9});
}

TEST_F(CredentialVaultTest, AFileThatCannotBeReadIsAnErrorAndStays) {
  fs::create_directories(directory_);
  writeText(top_.path() / "elsewhere", R"({"items":[]})");
  fs::create_symlink(top_.path() / "elsewhere", file_);
  EXPECT_EQ(read("a").status, kCredentialInputOutputError);
  EXPECT_EQ(write("a", {1}), kCredentialInputOutputError);
  EXPECT_TRUE(fs::is_symlink(file_));
  EXPECT_EQ(readText(top_.path() / "elsewhere"), R"({"items":[]})");
}

TEST(CredentialMessages, RefuseEveryOtherForm) {
  const Bytes request = encode(CredentialRequest{CredentialOperation::write, "s", "a", {1}});
  const Bytes reply = encode(CredentialReply{0, Bytes{1, 2}});
  for (std::size_t length = 0; length < request.size(); ++length) {
    EXPECT_FALSE(decodeCredentialRequest(ByteView(request).first(length))) << length;
    EXPECT_FALSE(length < reply.size() && decodeCredentialReply(ByteView(reply).first(length))) << length;
  }
  // Longer; no such operation; a huge length of the service.
  const std::size_t end = request.size();
  for (const auto& [index, byte] :
       {std::pair<std::size_t, std::uint8_t>{end, 0}, {0, 0}, {0, 4}, {0, 255}, {1, 255}}) {
    Bytes changed = request;
    changed.resize(std::max(end, index + 1));
    changed[index] = byte;
    EXPECT_FALSE(decodeCredentialRequest(changed)) << index;
  }
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
