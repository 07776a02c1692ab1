#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "access/CredentialHelperClient.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "platform/linux/credentials/SecretService.h"
#include "platform/linux/files/UniqueDescriptor.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

/// A program that is started with `input` on its standard input and ended with this.
class Child {
 public:
  Child(std::vector<std::string> arguments, const std::string& input) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) return;
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is cut off leaves nothing behind
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      execvp(pointers[0], pointers.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    [[maybe_unused]] const auto written = write(in[1], input.data(), input.size());
    close(in[1]);
    output_.reset(out[0]);
  }
  Child(const Child&) = delete;
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  /// The next line of its output.
  std::string line() const {
    std::string text;
    char byte = 0;
    while (read(output_.get(), &byte, 1) == 1 && byte != '\n') text.push_back(byte);
    return text;
  }

 private:
  pid_t pid_ = -1;
  UniqueDescriptor output_;
};

/// A session bus of its own, its files in a temporary directory.
class SecretServiceTest : public testing::Test {
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
    writeText(top_.path() / "bus.conf",
              "<busconfig><type>session</type><listen>unix:tmpdir=" + top_.path().string() +
                  "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
                  "<allow eavesdrop=\"false\"/><allow own=\"*\"/></policy></busconfig>");
    bus_ = std::make_unique<Child>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--print-address=1",
                                 "--config-file=" + (top_.path() / "bus.conf").string()},
        "");
    const std::string address = bus_->line();
    ASSERT_NE(address, "");
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
  }

  /// Serves a keyring that is unlocked, or that cannot be, since nobody can be asked.
  void startKeyring(bool isUnlocked) {
    keyring_ = std::make_unique<Child>(
        isUnlocked ? std::vector<std::string>{"gnome-keyring-daemon", "--unlock", "--foreground",
                                              "--components=secrets"}
                   : std::vector<std::string>{"gnome-keyring-daemon", "--foreground", "--components=secrets"},
        isUnlocked ? "secret" : "");
    ASSERT_EQ(std::system("gdbus wait --session --timeout 10 org.freedesktop.secrets"), 0);
  }

  const TemporaryDirectory top_;
  const std::filesystem::path file_ = top_.path() / "data" / "kestrune" / "credentials.json";
  const CredentialHelperClient client_{
      std::make_shared<HelperCredentialConnector>(KESTRUNE_CREDENTIAL_HELPER)};
  std::unique_ptr<Child> bus_;
  std::unique_ptr<Child> keyring_;
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

TEST_F(SecretServiceTest, AKeyringThatCannotStoreLeavesTheItemToTheFile) {
  startKeyring(false);
  EXPECT_EQ(client_.readCredential("s", "a").status, kCredentialNotFound);
  EXPECT_EQ(client_.writeCredential("s", "a", {5}), 0);
  EXPECT_EQ(client_.readCredential("s", "a").data, Bytes{5});
  EXPECT_NE(readText(file_).find("\"data\""), std::string::npos);
}

}  // namespace
}  // namespace kestrune::linux_platform
