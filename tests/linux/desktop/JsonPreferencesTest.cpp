#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <vector>

#include "platform/linux/desktop/JsonPreferences.h"
#include "platform/linux/files/PrivateDirectory.h"
#include "platform/linux/reactor/ReactorThread.h"
#include "runtime/ThreadQueue.h"
#include "support/CapturedLog.h"
#include "support/ChildProcess.h"
#include "support/ManualTime.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

class JsonPreferencesTest : public ::testing::Test {
 protected:
  const TemporaryDirectory top_;
  const ReactorThread watch_{"watch"};
  const fs::path directory_ = top_.path() / "config" / "kestrune";
  const fs::path file_ = directory_ / "preferences.json";
  const std::shared_ptr<ManualTime> time_ = ManualTime::make();
  const std::shared_ptr<SerialQueue> writer_ = time_->makeQueue("preferences");
  const std::string before_ = "{\n  \"key\": 1\n}\n";
  /// With the first value in the file.
  std::unique_ptr<JsonPreferences> withOneValue(std::shared_ptr<SerialQueue> writer,
                                                std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    writeText(file_, before_);
    return std::make_unique<JsonPreferences>(watch_.reactor(), directory_, std::move(writer), limit);
  }
  /// Until it is in the file, where that can be written.
  void store(JsonPreferences& preferences, const std::string& key, PreferenceValue value) {
    preferences.set(key, std::move(value));
    time_->advance(JsonPreferences::kWriteDelay);
  }
};

TEST_F(JsonPreferencesTest, ValuesKeepTheirTypes) {
  const std::vector<std::pair<std::string, PreferenceValue>> values = {
      {"flag", true}, {"whole", std::numeric_limits<std::int64_t>::min()},       {"real", 0.1},
      {"round", 2.0}, {"text", std::string("Gr\u00fc\u00dfe \"\U0001F44B\"\n")},
  };
  {
    JsonPreferences preferences(watch_.reactor(), directory_);
    EXPECT_FALSE(preferences.value("flag"));
    for (const auto& [key, value] : values) preferences.set(key, value);
  }
  JsonPreferences preferences(watch_.reactor(), directory_);
  for (const auto& [key, value] : values) EXPECT_EQ(preferences.value(key), value) << key;
  preferences.remove("flag");
  EXPECT_FALSE(preferences.value("flag"));
  EXPECT_EQ(modeOf(file_), 0600u);
  EXPECT_EQ(modeOf(directory_), 0700u);
}

TEST_F(JsonPreferencesTest, KeepsWhatItDoesNotKnow) {
  writeText(file_, R"({"later":{"a":[1,null]},"twice":1,"large":18446744073709551615,"twice":2})");
  {
    JsonPreferences preferences(watch_.reactor(), directory_);
    EXPECT_FALSE(preferences.value("later"));
    EXPECT_EQ(preferences.value("twice"), PreferenceValue(std::int64_t{2}));
    preferences.set("twice", std::int64_t{3});
  }
  EXPECT_EQ(readText(file_),
            "{\n  \"later\": {\"a\":[1,null]},\n  \"twice\": 3,\n  \"large\": 18446744073709551615\n}\n");
}

TEST_F(JsonPreferencesTest, SetsAsideWhatIsNoObject) {
  const fs::path aside = directory_ / "preferences.json.invalid";
  for (const auto* text : {"{\"codec\":", "[1]", "", "\xFF\xFE"}) {
    const CapturedLog log;
    writeText(file_, text);
    JsonPreferences(watch_.reactor(), directory_).set("codec", std::string("hevc"));
    EXPECT_TRUE(log.mentions("preferences.json.invalid"));
    EXPECT_EQ(readText(aside), text);
    EXPECT_EQ(JsonPreferences(watch_.reactor(), directory_).value("codec"), PreferenceValue("hevc"));
    fs::remove(aside);
  }
}

TEST_F(JsonPreferencesTest, WhatOthersWriteIsMergedAndTold) {
  std::vector<std::string> told;
  JsonPreferences preferences(watch_.reactor(), directory_, writer_);
  preferences.set("mine", std::int64_t{1});
  store(preferences, "both", std::int64_t{1});
  preferences.observeExternalChanges(time_->makeQueue(), [&](const auto& keys) { told = keys; });
  // A value is set before the watch reports the edit: both are kept.
  writeText(file_, R"({"theirs": [1], "both": 2, "kind": "x"})");
  store(preferences, "both", std::int64_t{3});
  EXPECT_EQ(readText(file_), "{\n  \"theirs\": [1],\n  \"both\": 3,\n  \"kind\": \"x\"\n}\n");
  EXPECT_EQ(told, (std::vector<std::string>{"mine", "kind", "theirs"}));
  EXPECT_FALSE(preferences.value("mine"));
  EXPECT_EQ(preferences.value("kind"), PreferenceValue("x"));
}

TEST_F(JsonPreferencesTest, ABrokenFileIsLeftToItsAuthor) {
  const CapturedLog log;
  std::vector<std::string> told;
  {
    JsonPreferences preferences(watch_.reactor(), directory_, writer_);
    store(preferences, "codec", std::string("hevc"));
    preferences.observeExternalChanges(time_->makeQueue(), [&](const auto& keys) { told = keys; });
    writeText(file_, "{\"codec\": \"h2");
    time_->advance(std::chrono::seconds(1));  // the look at the file that begins the observation
    EXPECT_TRUE(log.mentions("is ignored until"));
    store(preferences, "rate", std::int64_t{30});
    EXPECT_EQ(readText(file_), "{\"codec\": \"h2");
    EXPECT_EQ(preferences.value("codec"), PreferenceValue("hevc"));
    EXPECT_TRUE(told.empty());

    writeText(file_, R"({"codec": "h264"})");
    store(preferences, "wide", true);
    EXPECT_EQ(readText(file_), "{\n  \"codec\": \"h264\",\n  \"rate\": 30,\n  \"wide\": true\n}\n");
    EXPECT_EQ(told, std::vector<std::string>{"codec"});

    writeText(file_, "{,");
    preferences.set("rate", std::int64_t{60});
  }
  // Nobody mended it: at the end both are kept.
  EXPECT_EQ(readText(directory_ / "preferences.json.invalid"), "{,");
  EXPECT_EQ(JsonPreferences(watch_.reactor(), directory_).value("rate"), PreferenceValue(std::int64_t{60}));
}

TEST_F(JsonPreferencesTest, EditorsAreNoticedHoweverTheySave) {
  ThreadQueue queue("observer");
  JsonPreferences preferences(watch_.reactor(), directory_);
  const auto setAndStore = [&](std::int64_t value) {
    preferences.set("key", value);
    EXPECT_TRUE(
        testing::eventually([&] { return readText(file_).ends_with(std::to_string(value) + "\n}\n"); }));
  };
  setAndStore(0);
  std::atomic<std::int64_t> seen = 0;
  std::atomic<int> calls = 0;
  preferences.observeExternalChanges({std::shared_ptr<void>(), &queue}, [&](const auto& keys) {
    EXPECT_EQ(keys, std::vector<std::string>{"key"});
    ++calls;
    seen = std::get<std::int64_t>(*preferences.value("key"));
  });
  const auto waitFor = [&](std::int64_t value) { return testing::eventually([&] { return seen == value; }); };
  writeText(file_, R"({"key": 1})");  // in place
  EXPECT_TRUE(waitFor(1));
  setAndStore(2);  // our own writing is no news
  writeText(directory_ / ".edited", R"({"key": 3})");
  fs::rename(directory_ / ".edited", file_);
  EXPECT_TRUE(waitFor(3));
  // Its folder vanishes: the next value makes another, which is watched like the first.
  fs::remove_all(directory_);
  setAndStore(4);
  writeText(file_, R"({"key": 5})");
  EXPECT_TRUE(waitFor(5));
  fs::rename(directory_, top_.path() / "elsewhere");
  setAndStore(6);
  writeText(file_, R"({"key": 7})");
  EXPECT_TRUE(waitFor(7));
  EXPECT_EQ(calls, 4);
}

TEST_F(JsonPreferencesTest, WithoutAFileValuesLiveInMemory) {
  writeText(top_.path() / "blocked", "a file where the directory should be");
  const CapturedLog log;
  JsonPreferences preferences(watch_.reactor(), top_.path() / "blocked", writer_);
  EXPECT_TRUE(log.mentions("cannot be read"));
  preferences.set("key", true);
  time_->advance(std::chrono::hours(1));
  EXPECT_EQ(log.lines().size(), 2u);  // not one for each try
  EXPECT_TRUE(log.mentions("cannot be written"));
  EXPECT_EQ(preferences.value("key"), PreferenceValue(true));
  fs::remove(top_.path() / "blocked");
  time_->advance(std::chrono::minutes(1));
  EXPECT_TRUE(fs::exists(top_.path() / "blocked" / "preferences.json"));
}

TEST_F(JsonPreferencesTest, ManyChangesAreOneWriteALittleLaterAndNoChangeIsNone) {
  const auto preferences = withOneValue(writer_);
  for (std::int64_t value = 0; value < 1000; ++value) preferences->set("key", value);
  EXPECT_EQ(time_->pendingDelayedWork(), 1u);
  EXPECT_EQ(preferences->value("key"), PreferenceValue(std::int64_t{999}));
  EXPECT_EQ(readText(file_), before_);
  time_->advance(JsonPreferences::kWriteDelay);
  EXPECT_EQ(readText(file_), "{\n  \"key\": 999\n}\n");
  fs::remove(file_);
  store(*preferences, "key", std::int64_t{999});
  EXPECT_FALSE(fs::exists(file_));
}

TEST_F(JsonPreferencesTest, ALockedFileHoldsUpNobodyAndIsWrittenOnceItIsFree) {
  const CapturedLog log;
  const auto preferences = withOneValue(writer_);
  auto locked = PrivateDirectory(directory_).lock();
  preferences->set("key", true);
  time_->advance(std::chrono::minutes(10));
  EXPECT_EQ(readText(file_), before_);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.mentions("locked by another program"));
  locked.reset();
  time_->advance(std::chrono::minutes(1));
  EXPECT_NE(readText(file_), before_);
  EXPECT_TRUE(log.mentions("written again"));
}

TEST_F(JsonPreferencesTest, NothingIsLostAtTheEndUnlessTheDiskIsStuck) {
  const CapturedLog log;
  const auto writer = std::make_shared<ThreadQueue>("slow");
  std::promise<void> disk[2];
  writer->post([answer = disk[0].get_future()] { answer.wait(); });
  auto preferences = withOneValue(writer);
  preferences->set("late", true);
  writeText(file_, R"({"key": 2})");
  disk[0].set_value();
  preferences.reset();
  EXPECT_EQ(readText(file_), "{\n  \"key\": 2,\n  \"late\": true\n}\n");
  EXPECT_TRUE(log.lines().empty());

  writer->post([answer = disk[1].get_future()] { answer.wait(); });
  preferences = withOneValue(writer, std::chrono::milliseconds(1));
  preferences->set("late", true);
  preferences.reset();
  EXPECT_TRUE(log.mentions("does not answer"));
  disk[1].set_value();
}

}  // namespace
}  // namespace kestrune::linux_platform
