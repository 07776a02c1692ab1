#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
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

/// Connections whose helper is killed `delay` after its start.
class KillingConnector final : public CredentialConnector {
 public:
  explicit KillingConnector(fs::path helper) : inner_(std::move(helper)) {}
  std::unique_ptr<CredentialConnection> connect(const std::string& serviceName) override {
    return std::make_unique<Connection>(inner_.connect(serviceName), delay);
  }
  std::chrono::microseconds delay{0};

 private:
  class Connection final : public CredentialConnection {
   public:
    Connection(std::unique_ptr<CredentialConnection> inner, std::chrono::microseconds delay)
        : inner_(std::move(inner)), delay_(delay) {}
    ~Connection() override { end(); }
    void setInvalidationHandler(std::function<void()> handler) override {
      inner_->setInvalidationHandler(std::move(handler));
    }
    void setInterruptionHandler(std::function<void()> handler) override {
      inner_->setInterruptionHandler(std::move(handler));
    }
    void resume() override {
      inner_->resume();
      const pid_t pid = HelperCredentialConnector::helperProcess(*inner_);
      ASSERT_GT(pid, 0);
      killer_ = std::thread([pid, delay = delay_] {
        std::this_thread::sleep_for(delay);
        kill(pid, SIGKILL);
      });
    }
    void invalidate() override { end(); }
    CredentialHelperProtocol* remoteObjectProxy(std::function<void()> errorHandler) override {
      return inner_->remoteObjectProxy(std::move(errorHandler));
    }

   private:
    // The killer first: until the inner connection ends, the process is not reaped and its number is its own.
    void end() {
      if (killer_.joinable()) killer_.join();
      inner_->invalidate();
    }

    const std::unique_ptr<CredentialConnection> inner_;
    const std::chrono::microseconds delay_;
    std::thread killer_;
  };

  HelperCredentialConnector inner_;
};

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

TEST_F(HelperCredentialConnectorTest, KillingTheHelperLosesNoItem) {
  ASSERT_EQ(client_.writeCredential("s", "other", {42}), 0);
  const auto killing = std::make_shared<KillingConnector>(helper_);
  const CredentialHelperClient killed(killing);
  // Killed before it could do anything.
  EXPECT_EQ(killed.writeCredential("s", "a", {1}), kCredentialNotAvailable);
  EXPECT_EQ(killed.readCredential("s", "other").status, kCredentialNotAvailable);
  EXPECT_EQ(killed.removeCredential("s", "other"), kCredentialNotAvailable);

  Bytes stored(20'000, 0);
  ASSERT_EQ(client_.writeCredential("s", "a", stored), 0);
  std::minstd_rand random(7);
  int answered = 0;
  int unanswered = 0;
  for (std::uint8_t round = 1; round <= 60; ++round) {
    killing->delay = std::chrono::microseconds(random() % 12'000);
    const Bytes next(20'000, round);
    const auto status = killed.writeCredential("s", "a", next);
    const auto now = client_.readCredential("s", "a").data;
    ASSERT_TRUE(now);
    if (status == 0) {
      ++answered;
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
  RecordProperty("answered", answered);
}

}  // namespace
}  // namespace kestrune::linux_platform
