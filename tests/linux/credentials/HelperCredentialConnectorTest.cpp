#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "access/CredentialHelperClient.h"
#include "platform/linux/credentials/CredentialMessages.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

class HelperCredentialConnectorTest : public testing::Test {
 protected:
  HelperCredentialConnectorTest() {
    setenv("XDG_DATA_HOME", top_.path().c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
  }

  const TemporaryDirectory top_;
  const CapturedLog log_;
  const fs::path helper_ = KESTRUNE_CREDENTIAL_HELPER;
  const CredentialHelperClient client_{std::make_shared<HelperCredentialConnector>(helper_)};
};

TEST_F(HelperCredentialConnectorTest, AsksARealHelper) {
  const Bytes largest(kLargestCredentialData, 0xA5);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  EXPECT_EQ(client_.writeCredential("s", "a", largest), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, largest);
  EXPECT_EQ(client_.writeCredential("s", "a", Bytes(kLargestCredentialData + 1)), kCredentialParameterError);
  EXPECT_EQ(client_.removeCredential("s", "a"), 0);
  EXPECT_EQ(client_.removeCredential("s", "a"), kCredentialNotFound);
  EXPECT_EQ(modeOf(top_.path() / "kestrune" / "credentials.json"), 0600u);
}

TEST_F(HelperCredentialConnectorTest, HelpersAtTheSameTimeLoseNothing) {
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 6; ++caller) {
    callers.emplace_back([this, account = std::to_string(caller)] {
      for (std::uint8_t round = 0; round < 5; ++round)
        EXPECT_EQ(client_.writeCredential("s", account, {round}), 0);
    });
  }
  for (auto& caller : callers) caller.join();
  for (int caller = 0; caller < 6; ++caller) {
    EXPECT_EQ(client_.readCredential("s", std::to_string(caller)).data, Bytes{4});
  }
}

TEST_F(HelperCredentialConnectorTest, AnAbsentOrSilentHelperIsNotAvailable) {
  for (const fs::path& helper : {fs::path("/nonexistent/helper"), fs::path("/bin/true"), top_.path()}) {
    const CredentialHelperClient client(std::make_shared<HelperCredentialConnector>(helper));
    EXPECT_EQ(client.readCredential("s", "a").status, kCredentialNotAvailable) << helper;
    EXPECT_EQ(client.writeCredential("s", "a", {1}), kCredentialNotAvailable);
    EXPECT_EQ(client.removeCredential("s", "a"), kCredentialNotAvailable);
  }
}

TEST_F(HelperCredentialConnectorTest, WithoutAThreadTheHelperIsNotAvailable) {
  pthread_attr_t usual;
  pthread_attr_t tooLarge;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_attr_init(&tooLarge), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&tooLarge, std::size_t{1} << 48), 0);  // beyond the address space
  ASSERT_EQ(pthread_setattr_default_np(&tooLarge), 0);
  const auto read = client_.readCredential("s", "a");
  const auto written = client_.writeCredential("s", "a", {1});
  pthread_setattr_default_np(&usual);
  EXPECT_EQ(read.status, kCredentialNotAvailable);
  EXPECT_EQ(written, kCredentialNotAvailable);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
}

TEST_F(HelperCredentialConnectorTest, KillingTheHelperLosesNoItem) {
  ASSERT_EQ(client_.writeCredential("s", "other", {42}), 0);
  const fs::path killing = top_.path() / "killing";
  const CredentialHelperClient killed(std::make_shared<HelperCredentialConnector>(killing));
  const auto killAfter = [&](unsigned long microseconds) {
    writeText(killing, "#!/bin/sh\nexec timeout -s KILL " +
                           std::to_string(static_cast<double>(microseconds) / 1e6) + " " + helper_.string() +
                           "\n");
    fs::permissions(killing, fs::perms::owner_all);
  };
  killAfter(1);  // before it could do anything
  EXPECT_EQ(killed.writeCredential("s", "a", {1}), kCredentialNotAvailable);
  EXPECT_EQ(killed.readCredential("s", "other").status, kCredentialNotAvailable);
  EXPECT_EQ(killed.removeCredential("s", "other"), kCredentialNotAvailable);

  Bytes stored(20'000, 0);
  ASSERT_EQ(client_.writeCredential("s", "a", stored), 0);
  std::minstd_rand random(7);
  int unanswered = 0;
  for (std::uint8_t round = 1; round <= 60; ++round) {
    killAfter(1 + random() % 12'000);
    const Bytes next(20'000, round);
    const auto status = killed.writeCredential("s", "a", next);
    const auto now = client_.readCredential("s", "a").data;
    ASSERT_TRUE(now);
    if (status == 0) {
      EXPECT_EQ(now, next);
    } else {
      ++unanswered;
      EXPECT_EQ(status, kCredentialNotAvailable);
      EXPECT_TRUE(now == stored || now == next) << "round " << int{round};
    }
    stored = *now;
  }
  EXPECT_GT(unanswered, 0);
  EXPECT_EQ(client_.readCredential("s", "other").data, Bytes{42});
  EXPECT_FALSE(log_.mentions("set aside"));
}

}  // namespace
}  // namespace kestrune::linux_platform
