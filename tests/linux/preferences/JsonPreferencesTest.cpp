#include <gtest/gtest.h>

#include <condition_variable>
#include <limits>
#include <mutex>
#include <vector>

#include "platform/linux/preferences/JsonPreferences.h"
#include "runtime/ManualTime.h"
#include "runtime/ThreadQueue.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

class JsonPreferencesTest : public testing::Test {
 protected:
  const TemporaryDirectory top_;
  const fs::path directory_ = top_.path() / "config" / "kestrune";
  const fs::path file_ = directory_ / "preferences.json";
};

TEST_F(JsonPreferencesTest, ValuesKeepTheirTypes) {
  const std::vector<std::pair<std::string, PreferenceValue>> values = {
      {"flag", true}, {"whole", std::numeric_limits<std::int64_t>::min()},       {"real", 0.1},
      {"round", 2.0}, {"text", std::string("Gr\u00fc\u00dfe \"\U0001F44B\"\n")},
  };
  {
    JsonPreferences preferences(directory_);
    EXPECT_FALSE(preferences.value("flag"));
    for (const auto& [key, value] : values) preferences.set(key, value);
  }
  JsonPreferences preferences(directory_);
  for (const auto& [key, value] : values) EXPECT_EQ(preferences.value(key), value) << key;
  preferences.remove("flag");
  EXPECT_FALSE(JsonPreferences(directory_).value("flag"));
  EXPECT_EQ(modeOf(file_), 0600u);
  EXPECT_EQ(modeOf(directory_), 0700u);
}

TEST_F(JsonPreferencesTest, KeepsWhatItDoesNotKnow) {
  writeText(file_, R"({"later":{"a":[1,null]},"twice":1,"large":18446744073709551615,"twice":2})");
  JsonPreferences preferences(directory_);
  EXPECT_FALSE(preferences.value("later"));
  EXPECT_EQ(preferences.value("twice"), PreferenceValue(std::int64_t{2}));
  preferences.set("twice", std::int64_t{3});
  EXPECT_EQ(readText(file_),
            "{\n  \"later\": {\"a\":[1,null]},\n  \"twice\": 3,\n  \"large\": 18446744073709551615\n}\n");
}

TEST_F(JsonPreferencesTest, SetsAsideWhatIsNoObject) {
  int count = 0;
  for (const auto* text : {"{\"codec\":", "[1]", "", "\xFF\xFE"}) {
    const CapturedLog log;
    writeText(file_, text);
    JsonPreferences preferences(directory_);
    EXPECT_FALSE(preferences.value("codec"));
    const std::string aside = "preferences.json.invalid" + (count ? "." + std::to_string(count) : "");
    EXPECT_TRUE(log.mentions(aside));
    EXPECT_EQ(readText(directory_ / aside), text);
    preferences.set("codec", std::string("hevc"));
    EXPECT_EQ(JsonPreferences(directory_).value("codec"), PreferenceValue(std::string("hevc")));
    ++count;
  }
}

TEST_F(JsonPreferencesTest, WhatOthersWriteIsMergedAndTold) {
  const auto time = ManualTime::make();
  std::vector<std::string> told;
  JsonPreferences preferences(directory_);
  preferences.set("mine", std::int64_t{1});
  preferences.set("both", std::int64_t{1});
  preferences.observeExternalChanges(time->makeQueue(), [&](const auto& keys) { told = keys; });
  // Before the watch has told of it, a value is written: neither side loses.
  writeText(file_, R"({"theirs": [1], "both": 2, "kind": "x"})");
  preferences.set("both", std::int64_t{3});
  EXPECT_EQ(readText(file_), "{\n  \"theirs\": [1],\n  \"both\": 3,\n  \"kind\": \"x\"\n}\n");
  time->runReady();
  EXPECT_EQ(told, (std::vector<std::string>{"mine", "kind", "theirs"}));
  EXPECT_FALSE(preferences.value("mine"));
  EXPECT_EQ(preferences.value("kind"), PreferenceValue("x"));
}

TEST_F(JsonPreferencesTest, ABrokenFileIsLeftToItsAuthor) {
  const CapturedLog log;
  const auto time = ManualTime::make();
  std::vector<std::string> told;
  {
    JsonPreferences preferences(directory_);
    preferences.set("codec", std::string("hevc"));
    preferences.observeExternalChanges(time->makeQueue(), [&](const auto& keys) { told = keys; });
    writeText(file_, "{\"codec\": \"h2");
    time->advance(std::chrono::seconds(1));  // the look at the file that begins the observation
    EXPECT_TRUE(log.mentions("is ignored until"));
    preferences.set("rate", std::int64_t{30});
    EXPECT_EQ(readText(file_), "{\"codec\": \"h2");
    EXPECT_EQ(preferences.value("codec"), PreferenceValue("hevc"));
    EXPECT_TRUE(told.empty());

    writeText(file_, R"({"codec": "h264"})");
    preferences.set("wide", true);
    EXPECT_EQ(readText(file_), "{\n  \"codec\": \"h264\",\n  \"rate\": 30,\n  \"wide\": true\n}\n");
    time->runReady();
    EXPECT_EQ(told, std::vector<std::string>{"codec"});

    writeText(file_, "{,");
    preferences.set("rate", std::int64_t{60});
  }
  // Nobody mended it: at the end both are kept.
  EXPECT_EQ(readText(directory_ / "preferences.json.invalid"), "{,");
  EXPECT_EQ(JsonPreferences(directory_).value("rate"), PreferenceValue(std::int64_t{60}));
}

TEST_F(JsonPreferencesTest, EditorsAreNoticedHoweverTheySave) {
  ThreadQueue queue("observer");
  const auto line = std::shared_ptr<SerialQueue>(std::shared_ptr<void>(), &queue);
  JsonPreferences preferences(directory_);
  preferences.set("key", std::int64_t{0});
  std::mutex lock;
  std::condition_variable changed;
  std::int64_t seen = 0;
  int calls = 0;
  preferences.observeExternalChanges(line, [&](const auto& keys) {
    const std::lock_guard guard(lock);
    EXPECT_EQ(keys, std::vector<std::string>{"key"});
    seen = std::get<std::int64_t>(*preferences.value("key"));
    ++calls;
    changed.notify_all();
  });
  const auto waitFor = [&](std::int64_t value) {
    std::unique_lock guard(lock);
    return changed.wait_for(guard, std::chrono::seconds(10), [&] { return seen == value; });
  };
  writeText(file_, R"({"key": 1})");  // in place
  EXPECT_TRUE(waitFor(1));
  preferences.set("key", std::int64_t{2});  // our own writing is no news
  writeText(directory_ / ".edited", R"({"key": 3})");
  fs::rename(directory_ / ".edited", file_);
  EXPECT_TRUE(waitFor(3));
  const std::lock_guard guard(lock);
  EXPECT_EQ(calls, 2);
}

TEST_F(JsonPreferencesTest, WithoutAFileValuesLiveInMemory) {
  writeText(top_.path() / "blocked", "a file where the directory should be");
  const CapturedLog log;
  JsonPreferences preferences(top_.path() / "blocked");
  EXPECT_TRUE(log.mentions("cannot be read"));
  preferences.set("key", true);
  EXPECT_TRUE(log.mentions("cannot be written"));
  EXPECT_EQ(preferences.value("key"), PreferenceValue(true));
}

TEST_F(JsonPreferencesTest, AnUnchangedValueIsNotWritten) {
  JsonPreferences preferences(directory_);
  preferences.set("key", 1.5);
  fs::remove(file_);
  preferences.set("key", 1.5);
  EXPECT_FALSE(fs::exists(file_));
  preferences.set("key", true);
  EXPECT_TRUE(fs::exists(file_));
}

}  // namespace
}  // namespace kestrune::linux_platform
