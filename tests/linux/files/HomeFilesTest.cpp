#include <gtest/gtest.h>

#include <algorithm>

#include "platform/linux/files/HomeFiles.h"
#include "runtime/Error.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

TEST(HomeFilesTest, MakesAndListsWhatIsTheUsersAlone) {
  const TemporaryDirectory home;
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  HomeFiles files;
  ASSERT_EQ(files.applicationSupportDirectory(), home.path().string());
  const std::string profile = files.applicationSupportDirectory() + "/Kestrune/Profile";
  EXPECT_FALSE(files.visibleNames(profile));
  files.createDirectory(profile);
  EXPECT_EQ(modeOf(profile), 0700u);
  EXPECT_EQ(modeOf(home.path() / "Kestrune"), 0700u);
  std::filesystem::permissions(profile, std::filesystem::perms(0755));
  files.createDirectory(profile);
  EXPECT_EQ(modeOf(profile), 0755u);
  for (const auto* name : {"Tabs_1", ".hidden", "Session_2"}) writeText(profile + "/" + name, "x");
  auto names = files.visibleNames(profile).value();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Session_2", "Tabs_1"}));
  EXPECT_TRUE(files.fileExists(profile + "/.hidden"));
  EXPECT_FALSE(files.fileExists(profile + "/Tabs_1/below"));
  try {
    files.createDirectory(profile + "/Tabs_1/below");
    FAIL();
  } catch (const Error& failure) {
    EXPECT_TRUE(failure.localizedDescription().ends_with(": Not a directory"))
        << failure.localizedDescription();
  }
}

}  // namespace
}  // namespace kestrune::linux_platform
