#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>
#include <vector>

#include "access/TokenStore.h"
#include "platform/support/ConstantTime.h"
#include "support/FakeCredentials.h"

namespace kestrune {
namespace {

const std::string kService = "com.fennwick.Kestrune.viewer";
const std::string kAccount = "capability-token";

class TokenStoreTest : public testing::Test {
 protected:
  /// The token, or why there is none.
  std::string tokenOrFailure() {
    try {
      return store_.token();
    } catch (const TokenStoreError& error) {
      return error.localizedDescription();
    }
  }

  const std::shared_ptr<FakeCredentials> helper_ = std::make_shared<FakeCredentials>();
  const std::shared_ptr<FakeRandomSource> random_ = std::make_shared<FakeRandomSource>();
  TokenStore store_{std::make_shared<CredentialHelperClient>(helper_), random_};
};

TEST_F(TokenStoreTest, MakesOneTokenAndKeepsIt) {
  const std::string token = store_.token();
  // 0xF8 ... 0x17 in base64url: both of the replaced characters are in it.
  EXPECT_EQ(token, "-Pn6-_z9_v8AAQIDBAUGBwgJCgsMDQ4PEBESExQVFhc");
  EXPECT_EQ(helper_->items.at({kService, kAccount}), Bytes(token.begin(), token.end()));
  helper_->behaviour = FakeCredentials::Behaviour::interrupt;
  EXPECT_EQ(store_.token(), token);
  EXPECT_EQ(helper_->reads, 1);
  EXPECT_EQ(helper_->writes, 1);
}

TEST_F(TokenStoreTest, TakesAStoredTokenOfTheRightFormOnly) {
  const std::string good(43, 'a');
  for (const std::string& bad : {std::string(42, 'a'), std::string(44, 'a'), std::string(42, 'a') + "+",
                                 std::string(42, 'a') + "=", std::string(41, 'a') + "\u00fc",
                                 std::string(42, 'a') + "\xFF", std::string(42, 'a') + '\0', std::string()}) {
    helper_->setItem(kService, kAccount, bad);
    EXPECT_EQ(tokenOrFailure(), "The viewer token stored in Keychain is invalid.");
    EXPECT_EQ(helper_->items.at({kService, kAccount}), Bytes(bad.begin(), bad.end()));
  }
  EXPECT_EQ(helper_->writes, 0);
  helper_->setItem(kService, kAccount, good);
  EXPECT_EQ(store_.token(), good);
}

TEST_F(TokenStoreTest, FailuresCarryTheirStatusAndLeaveNothing) {
  random_->status = -50;
  EXPECT_EQ(tokenOrFailure(), "Could not generate an access token (OSStatus -50).");
  random_->status = 0;
  EXPECT_EQ(helper_->writes, 0);
  const std::string denied = "Could not access the viewer token in Keychain (OSStatus ";
  helper_->writeStatus = -61;
  EXPECT_EQ(tokenOrFailure(), denied + "-61).");
  helper_->writeStatus = 0;
  for (const int status : {-25308, 0}) {  // 0: found, but without data
    helper_->readStatus = status;
    EXPECT_EQ(tokenOrFailure(), denied + std::to_string(status) + ").");
  }
  helper_->readStatus.reset();

  // Nothing was cached on the way.
  EXPECT_EQ(store_.token().size(), 43u);
  EXPECT_EQ(helper_->writes, 2);
}

TEST_F(TokenStoreTest, FirstCallsAtTheSameTimeMakeOneToken) {
  std::vector<std::thread> callers;
  std::array<std::string, 8> tokens;
  for (auto& token : tokens) callers.emplace_back([&] { token = store_.token(); });
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(std::set<std::string>(tokens.begin(), tokens.end()).size(), 1u);
  EXPECT_EQ(helper_->writes, 1);
}

TEST(ConstantTime, ComparesBytesAndLengths) {
  using namespace std::string_literals;
  EXPECT_TRUE(constantTimeEquals("abc", "abc"));
  EXPECT_FALSE(constantTimeEquals("abc", "abd"));
  EXPECT_FALSE(constantTimeEquals("bbc", "abc"));
  EXPECT_FALSE(constantTimeEquals("abc", "abc\0"s));
  EXPECT_FALSE(constantTimeEquals("\0"s, ""));
}

}  // namespace
}  // namespace kestrune
