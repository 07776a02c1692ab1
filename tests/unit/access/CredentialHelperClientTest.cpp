#include <gtest/gtest.h>

#include "access/CredentialHelperClient.h"
#include "support/FakeCredentials.h"

namespace kestrune {
namespace {

class CredentialHelperClientTest : public testing::Test {
 protected:
  using Behaviour = FakeCredentials::Behaviour;
  const std::shared_ptr<FakeCredentials> helper_ = std::make_shared<FakeCredentials>();
  const CredentialHelperClient client_{helper_};
};

TEST_F(CredentialHelperClientTest, ReadsWritesAndRemoves) {
  const Bytes data{0, 1, 255};
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  EXPECT_EQ(client_.writeCredential("s", "a", data), 0);
  const auto read = client_.readCredential("s", "a");
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.data, data);
  EXPECT_FALSE(client_.readCredential("s", "b").data);
  EXPECT_EQ(client_.removeCredential("s", "a"), 0);
  EXPECT_EQ(client_.removeCredential("s", "a"), kCredentialNotFound);
  EXPECT_EQ(helper_->openConnections, 0);
  EXPECT_EQ(helper_->serviceNames, std::vector<std::string>(6, "com.fennwick.Kestrune.CredentialHelper"));
}

TEST_F(CredentialHelperClientTest, EveryFailureOfTheConnectionIsOneStatus) {
  helper_->setItem("s", "a", "x");
  for (const auto behaviour : {Behaviour::noProxy, Behaviour::interrupt, Behaviour::invalidate,
                               Behaviour::errorHandler, Behaviour::failThenAnswer}) {
    helper_->behaviour = behaviour;
    const auto read = client_.readCredential("s", "a");
    EXPECT_EQ(read.status, kCredentialNotAvailable);
    EXPECT_FALSE(read.data);
    EXPECT_EQ(client_.writeCredential("s", "b", {}), kCredentialNotAvailable);
    EXPECT_EQ(client_.removeCredential("s", "c"), kCredentialNotAvailable);
  }
  EXPECT_EQ(helper_->openConnections, 0);
}

TEST_F(CredentialHelperClientTest, TheFirstOutcomeCounts) {
  helper_->setItem("s", "a", "x");
  helper_->behaviour = Behaviour::answerThenFail;
  EXPECT_EQ(client_.readCredential("s", "a").data, (Bytes{'x'}));
}

TEST_F(CredentialHelperClientTest, CallsAtTheSameTimeDoNotMix) {
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 8; ++caller) {
    callers.emplace_back([this, caller] {
      const std::string account = std::to_string(caller);
      const Bytes data(static_cast<std::size_t>(caller), static_cast<std::uint8_t>(caller));
      for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(client_.writeCredential("s", account, data), 0);
        EXPECT_EQ(client_.readCredential("s", account).data, data);
      }
    });
  }
  for (auto& caller : callers) caller.join();
}

}  // namespace
}  // namespace kestrune
