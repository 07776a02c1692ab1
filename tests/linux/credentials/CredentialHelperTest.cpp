#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "access/CredentialHelperClient.h"
#include "platform/linux/credentials/CredentialMessages.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "support/CapturedLog.h"
#include "support/ChildProcess.h"
#include "support/MessageBusFixture.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

class HelperCredentialConnectorTest : public ::testing::Test {
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
  EXPECT_EQ(client_.writeCredential("s", "a", largest), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, largest);
  EXPECT_EQ(client_.writeCredential("s", "a", Bytes(kLargestCredentialData + 1)), kCredentialParameterError);
  EXPECT_EQ(client_.removeCredential("s", "a"), 0);
  EXPECT_EQ(client_.removeCredential("s", "a"), kCredentialNotFound);
}

TEST_F(HelperCredentialConnectorTest, HelpersAtTheSameTimeLoseNothing) {
  {
    std::vector<std::jthread> callers;
    for (int caller = 0; caller < 6; ++caller) {
      callers.emplace_back([this, account = std::to_string(caller)] {
        for (std::uint8_t round = 0; round < 5; ++round)
          EXPECT_EQ(client_.writeCredential("s", account, {round}), 0);
      });
    }
  }
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
  const auto status = client_.readCredential("s", "a").status;
  pthread_setattr_default_np(&usual);
  EXPECT_EQ(status, kCredentialNotAvailable);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
}

TEST_F(HelperCredentialConnectorTest, KillingTheHelperLosesNoItem) {
  ASSERT_EQ(client_.writeCredential("s", "other", {42}), 0);
  const fs::path killing = top_.path() / "killing";
  const CredentialHelperClient killed(std::make_shared<HelperCredentialConnector>(killing));
  Bytes stored(20'000, 0);
  ASSERT_EQ(client_.writeCredential("s", "a", stored), 0);
  std::minstd_rand random(7);
  int unanswered = 0;
  for (std::uint8_t round = 1; round <= 60; ++round) {
    const double after = round == 1 ? 1e-6 : static_cast<double>(1 + random() % 12'000) / 1e6;
    writeText(killing,
              "#!/bin/sh\nexec timeout -s KILL " + std::to_string(after) + " " + helper_.string() + "\n");
    fs::permissions(killing, fs::perms::owner_all);
    const Bytes next(20'000, round);
    const auto status = killed.writeCredential("s", "a", next);
    unanswered += status == 0 ? 0 : 1;
    const auto now = client_.readCredential("s", "a").data;
    ASSERT_TRUE(now == next || (status == kCredentialNotAvailable && now == stored))
        << "round " << int{round};
    stored = *now;
  }
  EXPECT_GT(unanswered, 0);
  EXPECT_EQ(client_.readCredential("s", "other").data, Bytes{42});
  EXPECT_FALSE(log_.mentions("set aside"));
}

/// A session bus of its own, its files in a temporary directory.
class SecretServiceTest : public HelperCredentialConnectorTest {
 protected:
  void SetUp() override {
    if (std::system("command -v dbus-daemon gnome-keyring-daemon gdbus >/dev/null") != 0) {
      GTEST_SKIP() << "needs dbus-daemon, gnome-keyring-daemon and gdbus";
    }
    setenv("XDG_RUNTIME_DIR", top_.path().c_str(), 1);
    setenv("HOME", top_.path().c_str(), 1);
    bus_ = std::make_unique<testing::MessageBus>(top_.path());
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);
  }
  /// Serves a keyring that is unlocked, or that has no one to ask for its password.
  void startKeyring(bool isUnlocked) {
    const auto password = top_.path() / "password";
    writeText(password, "secret");
    keyring_ =
        std::make_unique<testing::ChildProcess>("gnome-keyring-daemon --foreground --components=secrets " +
                                                (isUnlocked ? "--unlock < " + password.string() : ""));
    ASSERT_EQ(std::system("gdbus wait --session --timeout 10 org.freedesktop.secrets"), 0);
  }

  const fs::path file_ = top_.path() / "kestrune" / "credentials.json";
  std::unique_ptr<testing::MessageBus> bus_;
  std::unique_ptr<testing::ChildProcess> keyring_;
};

TEST_F(SecretServiceTest, KeepsItemsInTheKeyring) {
  const Bytes data{0, 1, 2, 255, 0};
  startKeyring(true);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  ASSERT_EQ(client_.writeCredential("s", "a", data), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, data);
  EXPECT_EQ(readText(file_).find("\"data\""), std::string::npos);

  // The list of where items are may get lost.
  std::filesystem::remove(file_);
  EXPECT_EQ(client_.readCredential("s", "a").data, data);
  ASSERT_EQ(client_.writeCredential("s", "b", {8}), 0);
  EXPECT_EQ(client_.removeCredential("s", "a"), 0);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  EXPECT_EQ(client_.removeCredential("s", "a"), kCredentialNotFound);

  // Without the keyring its items are out of reach, not missing, and new ones go to the file.
  keyring_.reset();
  EXPECT_EQ(client_.readCredential("s", "b").status, kCredentialNotAvailable);
  EXPECT_EQ(client_.writeCredential("s", "c", {9}), 0);
  EXPECT_EQ(client_.readCredential("s", "c").data, Bytes{9});
  startKeyring(true);
  EXPECT_EQ(client_.readCredential("s", "b").data, Bytes{8});
}

TEST_F(SecretServiceTest, WhatALockedKeyringHasIsNotMissing) {
  startKeyring(true);
  ASSERT_EQ(client_.writeCredential("s", "a", {1}), 0);
  keyring_.reset();
  startKeyring(false);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotAvailable);
  EXPECT_EQ(client_.removeCredential("s", "a"), kCredentialNotAvailable);
  EXPECT_EQ(client_.readCredential("s", "never written").status, kCredentialNotFound);
  keyring_.reset();
  startKeyring(true);
  EXPECT_EQ(client_.readCredential("s", "a").data, Bytes{1});
  EXPECT_EQ(client_.removeCredential("s", "a"), 0);
}

TEST_F(SecretServiceTest, AKeyringThatCannotStoreLeavesTheItemToTheFile) {
  startKeyring(false);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  EXPECT_EQ(client_.writeCredential("s", "a", {5}), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, Bytes{5});
  EXPECT_NE(readText(file_).find("\"data\""), std::string::npos);
}

TEST_F(SecretServiceTest, AKeyringThatSaysNothingHoldsUpNoCallBeyondItsLimit) {
  startKeyring(true);
  ASSERT_EQ(client_.writeCredential("s", "a", {1}), 0);
  keyring_->signal(SIGSTOP);
  const CredentialHelperClient client(std::make_shared<HelperCredentialConnector>(KESTRUNE_IMPATIENT_HELPER));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client.readCredential("s", "a").status, kCredentialNotAvailable);
  EXPECT_EQ(client.removeCredential("s", "a"), kCredentialNotAvailable);
  EXPECT_EQ(client.writeCredential("s", "b", {2}), 0);  // in the file
  EXPECT_EQ(client.readCredential("s", "b").data, Bytes{2});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));  // three times one second
  keyring_->signal(SIGCONT);
  EXPECT_EQ(client.readCredential("s", "a").data, Bytes{1});
}

}  // namespace
}  // namespace kestrune::linux_platform
