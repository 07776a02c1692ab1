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
  for (const auto behaviour :
       {Behaviour::noProxy, Behaviour::interrupt, Behaviour::invalidate, Behaviour::errorHandler}) {
    helper_->behaviour = behaviour;
    const auto read = client_.readCredential("s", "a");
    EXPECT_EQ(read.status, kCredentialNotAvailable);
    EXPECT_FALSE(read.data);
    EXPECT_EQ(client_.writeCredential("s", "b", {}), kCredentialNotAvailable);
    EXPECT_EQ(client_.removeCredential("s", "c"), kCredentialNotAvailable);
  }
  EXPECT_EQ(helper_->openConnections, 0);
}

}  // namespace
}  // namespace kestrune
