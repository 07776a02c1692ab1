#include <gtest/gtest.h>

#include "access/HostedSignalingCredentialStore.h"
#include "runtime/Error.h"
#include "support/FakeCredentials.h"

namespace kestrune {
namespace {

TEST(HostedSignalingCredentialStoreTest, KeepsOneItemAndSaysWhyItCannot) {
  const auto helper = std::make_shared<FakeCredentials>();
  const HostedSignalingCredentialStore store(std::make_shared<CredentialHelperClient>(helper));
  const auto failure = [](const std::function<void()>& body) -> std::string {
    try {
      body();
    } catch (const Error& error) {
      return error.localizedDescription();
    }
    return {};
  };
  const HostedSignalingCredentials credentials{"https://host/b", "d", "\"m\u00fc", "v", "https://host/v#v"};
  EXPECT_FALSE(store.load());
  store.save(credentials);
  EXPECT_EQ(store.load(), credentials);
  EXPECT_EQ(store.remove(), kCredentialSuccess);
  for (const std::string_view broken : {"", "{", "{\"serviceURL\":\"https://host\"}"}) {
    helper->setItem("com.fennwick.Kestrune.hosted-signaling", "credentials", broken);
    EXPECT_EQ(failure([&] { store.load(); }), "The signaling service returned an invalid response.");
  }
  helper->behaviour = FakeCredentials::Behaviour::interrupt;
  const std::string denied = "Could not access hosted connection credentials in Keychain (OSStatus -25291).";
  EXPECT_EQ(failure([&] { store.load(); }), denied);
  EXPECT_EQ(failure([&] { store.save({}); }), denied);
}

}  // namespace
}  // namespace kestrune
