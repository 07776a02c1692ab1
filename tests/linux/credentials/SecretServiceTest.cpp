#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "access/CredentialHelperClient.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "support/ChildProcess.h"
#include "support/MessageBusFixture.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

using testing::ChildProcess;

/// A session bus of its own, its files in a temporary directory.
class SecretServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP()
        << "the thread sanitizer does not see the locks of GLib, with which the helper talks to the bus";
#endif
    if (std::system("command -v dbus-daemon gnome-keyring-daemon gdbus >/dev/null") != 0) {
      GTEST_SKIP() << "needs dbus-daemon, gnome-keyring-daemon and gdbus";
    }
    setenv("XDG_DATA_HOME", (top_.path() / "data").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", top_.path().c_str(), 1);
    setenv("HOME", top_.path().c_str(), 1);
    bus_ = std::make_unique<testing::MessageBus>(top_.path());
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);
  }
  void TearDown() override {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
  }

  /// Serves a keyring that is unlocked, or that cannot be, since nobody can be asked.
  void startKeyring(bool isUnlocked) {
    const auto password = top_.path() / "password";
    writeText(password, "secret");
    keyring_ = std::make_unique<ChildProcess>("gnome-keyring-daemon --foreground --components=secrets " +
                                              (isUnlocked ? "--unlock < " + password.string() : ""));
    ASSERT_EQ(std::system("gdbus wait --session --timeout 10 org.freedesktop.secrets"), 0);
  }

  const TemporaryDirectory top_;
  const std::filesystem::path file_ = top_.path() / "data" / "kestrune" / "credentials.json";
  const CredentialHelperClient client_{
      std::make_shared<HelperCredentialConnector>(KESTRUNE_CREDENTIAL_HELPER)};
  std::unique_ptr<testing::MessageBus> bus_;
  std::unique_ptr<ChildProcess> keyring_;
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
  ASSERT_EQ(client_.writeCredential("s", "a", {7}), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, Bytes{7});
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
