#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "platform/linux/preferences/JsonPreferences.h"
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
