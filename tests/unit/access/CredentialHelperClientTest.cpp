#include <gtest/gtest.h>

#include "access/CredentialHelperClient.h"
#include "support/FakeCredentials.h"

namespace kestrune {
namespace {

TEST(CredentialHelperClientTest, EveryFailureOfTheConnectionIsOneStatus) {
  using Behaviour = FakeCredentials::Behaviour;
  const auto helper = std::make_shared<FakeCredentials>();
  const CredentialHelperClient client{helper};
  helper->setItem("s", "a", "x");
  for (const auto behaviour :
       {Behaviour::noProxy, Behaviour::interrupt, Behaviour::invalidate, Behaviour::errorHandler}) {
    helper->behaviour = behaviour;
    const auto read = client.readCredential("s", "a");
    EXPECT_EQ(read.status, kCredentialNotAvailable);
    EXPECT_FALSE(read.data);
    EXPECT_EQ(client.writeCredential("s", "b", {}), kCredentialNotAvailable);
    EXPECT_EQ(client.removeCredential("s", "c"), kCredentialNotAvailable);
  }
  EXPECT_EQ(helper->openConnections, 0);
}

}  // namespace
}  // namespace kestrune
