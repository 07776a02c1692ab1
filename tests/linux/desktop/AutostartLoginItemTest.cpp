#include <gmock/gmock.h>

#include <cstdlib>

#include "platform/linux/desktop/AutostartLoginItem.h"
#include "runtime/Error.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

using Status = LoginItem::Status;

class AutostartLoginItemTest : public ::testing::Test {
 protected:
  AutostartLoginItemTest() { setenv("XDG_CURRENT_DESKTOP", "ubuntu:GNOME", 1); }
  ~AutostartLoginItemTest() override { unsetenv("XDG_CURRENT_DESKTOP"); }

  Status statusWith(const std::string& lines) const {
    writeText(file_, "# ours\n[Desktop Entry]\nType=Application\nExec = /bin/true\n" + lines);
    return item_.status();
  }

  const TemporaryDirectory top_;
  const std::filesystem::path directory_ = top_.path() / "config" / "autostart";
  const std::filesystem::path file_ = directory_ / "kestrune.desktop";
  AutostartLoginItem item_{directory_, "/bin/true"};
};

TEST_F(AutostartLoginItemTest, RegistersAndUnregisters) {
  EXPECT_EQ(item_.status(), Status::notRegistered);
  item_.unregisterItem();
  item_.registerItem();
  EXPECT_EQ(item_.status(), Status::enabled);
  EXPECT_EQ(modeOf(file_), 0600u);

  // What the user added stays for as long as the entry starts this program.
  writeText(file_, readText(file_) + "X-GNOME-Autostart-Delay=5\n");
  item_.registerItem();
  EXPECT_NE(readText(file_).find("Delay"), std::string::npos);
  AutostartLoginItem moved(directory_, "/bin/false");
  moved.registerItem();
  EXPECT_NE(readText(file_).find("Exec=\"/bin/false\"\n"), std::string::npos);

  item_.unregisterItem();
  EXPECT_EQ(item_.status(), Status::notRegistered);
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(AutostartLoginItemTest, AnEntryThatIsSwitchedOffNeedsApproval) {
  for (const char* lines : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false", "OnlyShowIn=KDE;XFCE;\n",
                            "NotShowIn=KDE;GNOME\n", "Hidden=false\r\n Hidden = true \r\n"}) {
    EXPECT_EQ(statusWith(lines), Status::requiresApproval) << lines;
  }
  item_.registerItem();  // the user's wish
  EXPECT_EQ(item_.status(), Status::enabled);

  for (const char* lines : {"Hidden=false\n", "OnlyShowIn=GNOME;\n", "NotShowIn=KDE;\n", "#Hidden=true\n",
                            "[Desktop Action x]\nHidden=true\n", "TryExec=/bin/true\n"}) {
    EXPECT_EQ(statusWith(lines), Status::enabled) << lines;
  }
  unsetenv("XDG_CURRENT_DESKTOP");
  EXPECT_EQ(statusWith("OnlyShowIn=KDE;\n"), Status::enabled);
}

TEST_F(AutostartLoginItemTest, AnEntryThatCannotStartAnythingCountsAsNone) {
  const std::vector<std::string> texts{"",
                                       "Exec=/bin/true\n",
                                       "[Desktop Entry]\nExec=\n",
                                       "[Desktop Entry]\nTryExec=/no/such\nExec=/no/such\n",
                                       std::string(1 << 20, '['),
                                       {"\0\n=\n[Desktop Entry", 17}};
  for (const std::string& text : texts) {
    writeText(file_, text);
    EXPECT_EQ(item_.status(), Status::notRegistered) << text.substr(0, 80);
  }
  std::filesystem::remove(file_);
  std::filesystem::create_directory(file_);
  EXPECT_EQ(item_.status(), Status::notRegistered);
}

TEST_F(AutostartLoginItemTest, AFailureNamesTheFileAndKeepsTheOldEntry) {
  writeText(directory_.parent_path(), "in the way");
  const std::string reason = "The entry for the start at login could not be written: " + file_.string();
  EXPECT_THAT([this] { item_.registerItem(); },
              ::testing::ThrowsMessage<Error>(reason + ": Not a directory"));
  EXPECT_EQ(item_.status(), Status::notRegistered);

  std::filesystem::remove(directory_.parent_path());
  std::filesystem::create_directories(file_ / "full");
  EXPECT_THROW(item_.unregisterItem(), Error);
  EXPECT_THROW(item_.registerItem(), Error);
}

/// What is written is read by another implementation of the standard.
TEST_F(AutostartLoginItemTest, ADesktopStartsTheProgramWhateverItsPath) {
  // GLib looks for the program before it expands a field code in its name.
  AutostartLoginItem(directory_, "/opt/50%f").registerItem();
  EXPECT_NE(readText(file_).find("\nExec=\"/opt/50%%f\"\n"), std::string::npos);
  if (std::system("command -v gio >/dev/null") != 0) GTEST_SKIP() << "needs gio";
  const auto program = top_.path() / R"(a "b" $HOME `x` \n 'q' é)" / "run me";
  writeText(program, "#!/bin/sh\necho started $# >\"" + (top_.path() / "mark").string() + "\"\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  AutostartLoginItem item(directory_, program);
  item.registerItem();
  EXPECT_EQ(item.status(), Status::enabled);
  ASSERT_EQ(std::system(("timeout 20 gio launch " + file_.string()).c_str()), 0);
  EXPECT_TRUE(testing::eventually([&] { return !readText(top_.path() / "mark").empty(); }));
  EXPECT_EQ(readText(top_.path() / "mark"), "started 0\n");
}

}  // namespace
}  // namespace kestrune::linux_platform
