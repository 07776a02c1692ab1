#include <gtest/gtest.h>

#include <numeric>

#include "platform/linux/credentials/CredentialVault.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

/// The file alone; what the Secret Service adds is tested against a real one.
class CredentialVaultTest : public testing::Test {
 protected:
  CredentialReply read(const std::string& account) {
    return vault_.perform({CredentialOperation::read, "service", account, {}});
  }
  CredentialStatus write(const std::string& account, const Bytes& data) {
    return vault_.perform({CredentialOperation::write, "service", account, data}).status;
  }
  CredentialStatus remove(const std::string& account) {
    return vault_.perform({CredentialOperation::remove, "service", account, {}}).status;
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
  int count = 0;
  for (const auto& text : {good.substr(0, good.size() / 2), std::string("{}"), std::string("[]"),
                           std::string(R"({"items":[{"service":"s"}]})"),
                           std::string(R"({"items":[{"service":"s","account":"a","data":"?"}]})")}) {
    writeText(file_, text);
    EXPECT_EQ(read("a").status, kCredentialNotFound) << text;
    EXPECT_EQ(write("b", {2}), 0);
    EXPECT_EQ(
        readText(directory_ / ("credentials.json.invalid" + (count ? "." + std::to_string(count) : ""))),
        text);
    ++count;
  }
  EXPECT_TRUE(log_.mentions("set aside as credentials.json.invalid.4"));
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

}  // namespace
}  // namespace kestrune::linux_platform
