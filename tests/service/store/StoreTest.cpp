#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "store/SqliteDatabase.h"
#include "store/SqliteStore.h"
#include "store/Store.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

using AddAccount = Store::AddAccountOutcome;
using Redeem = Store::RedeemOutcome;
using OpenStore = std::unique_ptr<Store> (*)(const std::filesystem::path& folder);

/// What holds for every store. A store is opened in an empty folder, and again in the same one.
class StoreTest : public testing::TestWithParam<OpenStore> {
 protected:
  TemporaryDirectory folder_;
  std::unique_ptr<Store> store_ = GetParam()(folder_.path());

  void reopen() {
    store_.reset();
    store_ = GetParam()(folder_.path());
  }
  void approveOne(const std::string& id, WallTime expiresAt = 1000) {
    ASSERT_TRUE(store_->addAuthorization({.id = id, .pollTokenHash = {7}, .expiresAt = expiresAt}));
    ASSERT_TRUE(store_->approveAuthorization(id, "a", "Mac", 0));
  }
};

TEST_P(StoreTest, AccountsAreUniqueAndTheirNumberIsLimited) {
  EXPECT_EQ(store_->addAccount({.id = "local"}, std::nullopt, 1), AddAccount::added);
  EXPECT_EQ(store_->addAccount({.id = "a", .signInName = "ann", .passwordHash = "$h"}, std::nullopt, 1),
            AddAccount::added);
  EXPECT_EQ(store_->addAccount({.id = "b", .signInName = "ben"}, std::nullopt, 1), AddAccount::full);
  EXPECT_EQ(store_->addAccount({.id = "b", .signInName = "ann"}, std::nullopt, 9), AddAccount::taken);
  EXPECT_EQ(store_->addAccount({.id = "c"}, Identity{"https://i", "1"}, 9), AddAccount::added);
  EXPECT_EQ(store_->addAccount({.id = "d"}, Identity{"https://i", "1"}, 9), AddAccount::taken);
  reopen();
  EXPECT_EQ(store_->countAccounts(), 2u);
  EXPECT_EQ(store_->accountWithSignInName("ann")->passwordHash, "$h");
  EXPECT_EQ(store_->accountWithIdentity({"https://i", "1"})->id, "c");
  EXPECT_FALSE(store_->account("d")) << "a refused account leaves nothing behind";
}

TEST_P(StoreTest, SessionsEndByTimeByRemovalAndByNumber) {
  store_->addAccount({.id = "a"}, std::nullopt, 9);
  for (std::uint8_t i = 0; i <= Store::kMaximumSessionsPerAccount; ++i)
    store_->addSession({{i}, "a", i, 100});
  EXPECT_FALSE(store_->session({0}, 50)) << "the oldest";
  EXPECT_EQ(store_->session({1}, 99)->accountID, "a");
  EXPECT_FALSE(store_->session({1}, 100));
  store_->removeSession({2});
  EXPECT_FALSE(store_->session({2}, 50));
}

TEST_P(StoreTest, AnAuthorizationBecomesOneDevice) {
  store_->addAccount({.id = "a"}, std::nullopt, 9);
  ASSERT_TRUE(store_->addAuthorization({.id = "w", .pollTokenHash = {7}, .expiresAt = 1000}));
  EXPECT_EQ(store_->redeemAuthorization("w", {7}, {.id = "d1"}), Redeem::pending);
  EXPECT_FALSE(store_->approveAuthorization("w", "a", "Mac", 1000)) << "expired";
  EXPECT_TRUE(store_->approveAuthorization("w", "a", "Mac", 999));
  EXPECT_FALSE(store_->approveAuthorization("w", "a", "Other", 999)) << "approved already";
  EXPECT_EQ(store_->redeemAuthorization("w", {8}, {.id = "d1"}), Redeem::unknown);
  EXPECT_EQ(store_->redeemAuthorization("w", {7}, {.id = "d1", .createdAt = 1000}), Redeem::unknown);

  int redeemed[2] = {};
  std::thread other(
      [&] { redeemed[0] = store_->redeemAuthorization("w", {7}, {.id = "d1"}) == Redeem::redeemed; });
  redeemed[1] = store_->redeemAuthorization("w", {7}, {.id = "d2"}) == Redeem::redeemed;
  other.join();
  EXPECT_EQ(redeemed[0] + redeemed[1], 1);
  ASSERT_EQ(store_->devices("a").size(), 1u);
  EXPECT_EQ(store_->devices("a")[0].name, "Mac");
}

TEST_P(StoreTest, AFullAccountKeepsItsApprovalUntilADeviceIsRemoved) {
  store_->addAccount({.id = "a"}, std::nullopt, 9);
  for (std::size_t i = 0; i < Store::kMaximumDevicesPerAccount; ++i) {
    approveOne("w" + std::to_string(i));
    ASSERT_EQ(store_->redeemAuthorization("w" + std::to_string(i), {7}, {.id = std::to_string(i)}),
              Redeem::redeemed);
  }
  approveOne("last");
  EXPECT_EQ(store_->redeemAuthorization("last", {7}, {.id = "x"}), Redeem::tooManyDevices);
  EXPECT_FALSE(store_->removeDevice("b", "0")) << "another account's";
  EXPECT_TRUE(store_->removeDevice("a", "0"));
  EXPECT_EQ(store_->redeemAuthorization("last", {7}, {.id = "x"}), Redeem::redeemed);
}

TEST_P(StoreTest, PresenceAndReportsBelongToDevices) {
  store_->addAccount({.id = "a"}, std::nullopt, 9);
  approveOne("w");
  store_->redeemAuthorization("w", {7}, {.id = "d"});
  store_->setPresence("d", {true, 5});
  store_->setPresence("gone", {true, 5});
  EXPECT_FALSE(store_->presence("gone"));
  store_->clearPresence();
  EXPECT_FALSE(store_->presence("d")->isOnline);
  EXPECT_EQ(store_->presence("d")->lastSeenAt, 5);

  const Report report{.deviceID = "d", .accountID = "a", .reportID = "r1", .body = "{}"};
  EXPECT_EQ(store_->addReport(report), 1);
  EXPECT_EQ(store_->addReport(report), 1) << "sent twice";
  auto next = report;
  for (std::size_t i = 0; i < Store::kMaximumReportsPerAccount; ++i) {
    next.reportID = "n" + std::to_string(i);
    store_->addReport(next);
  }
  EXPECT_FALSE(store_->report(1)) << "the oldest";
  EXPECT_TRUE(store_->removeDevice("a", "d"));
  EXPECT_EQ(store_->reports("a", 5000).size(), Store::kMaximumReportsPerAccount);
  EXPECT_EQ(store_->reports("a", 1)[0].number, 201);
}

INSTANTIATE_TEST_SUITE_P(Sqlite, StoreTest,
                         testing::Values([](const std::filesystem::path& folder) -> std::unique_ptr<Store> {
                           return std::make_unique<SqliteStore>(folder / "store.sqlite");
                         }));

TEST(SqliteStoreTest, IsPrivateAndRefusesWhatANewerProgramWrote) {
  const TemporaryDirectory folder;
  const auto file = folder.path() / "store.sqlite";
  SqliteStore store(file);
  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_EQ(modeOf(file.string() + "-wal"), 0600u);
  SqliteDatabase(file).execute("PRAGMA user_version = 1000");
  EXPECT_THROW(SqliteStore{file}, StoreError);
}

}  // namespace
}  // namespace kestrune::service
