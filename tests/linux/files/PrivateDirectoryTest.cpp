#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/linux/files/PrivateDirectory.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

Bytes bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

int errorOf(const std::function<void()>& body) {
  try {
    body();
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

class PrivateDirectoryTest : public testing::Test {
 protected:
  const TemporaryDirectory top_;
  const fs::path path_ = top_.path() / "a" / "b";
};

TEST_F(PrivateDirectoryTest, KeepsOthersOut) {
  writeText(path_ / "open", "x");
  fs::permissions(path_, fs::perms::all);
  fs::permissions(path_ / "open", fs::perms(0644));
  const PrivateDirectory directory(path_);
  EXPECT_EQ(modeOf(path_), 0700u);
  directory.write("file", bytes("secret"));
  EXPECT_EQ(modeOf(path_ / "file"), 0600u);
  EXPECT_EQ(directory.read("file", 6), bytes("secret"));
  EXPECT_EQ(directory.read("open", 10), bytes("x"));
  EXPECT_EQ(modeOf(path_ / "open"), 0600u);
}

TEST_F(PrivateDirectoryTest, AFullDiskLeavesTheOldFileAndTheNextWriteSucceeds) {
  const PrivateDirectory directory(path_);
  directory.write("file", bytes("old"));
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{4, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const int error = errorOf([&] { directory.write("file", bytes("much longer")); });
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(error, EFBIG);
  EXPECT_FALSE(fs::exists(path_ / "file.new"));
  EXPECT_EQ(directory.read("file", 100), bytes("old"));
  directory.write("file", bytes("much longer"));
  EXPECT_EQ(directory.read("file", 100), bytes("much longer"));
}

TEST_F(PrivateDirectoryTest, FollowsNoLinks) {
  fs::create_directories(top_.path() / "real");
  fs::create_directory_symlink(top_.path() / "real", top_.path() / "link");
  EXPECT_NE(errorOf([&] { PrivateDirectory(top_.path() / "link"); }), 0);

  const PrivateDirectory directory(path_);
  writeText(top_.path() / "target", "precious");
  fs::create_symlink(top_.path() / "target", path_ / "file");
  fs::create_symlink(top_.path() / "target", path_ / "file.new");
  EXPECT_EQ(errorOf([&] { directory.read("file", 100); }), ELOOP);
  directory.write("file", bytes("new"));
  EXPECT_EQ(readText(top_.path() / "target"), "precious");
  EXPECT_EQ(directory.read("file", 100), bytes("new"));
}

TEST_F(PrivateDirectoryTest, RefusesWhatIsNoFileOrTooLargeAndSetsAsideWithoutOverwriting) {
  const PrivateDirectory directory(path_);
  EXPECT_FALSE(directory.read("none", 1));
  directory.write("file", bytes("12345"));
  EXPECT_EQ(errorOf([&] { directory.read("file", 4); }), EFBIG);
  ASSERT_EQ(mkfifo((path_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(errorOf([&] { directory.read("fifo", 4); }), EINVAL);
  for (const std::string aside : {"file.invalid", "file.invalid.1", "file.invalid.2"}) {
    directory.write("file", bytes(aside));
    EXPECT_EQ(directory.setAside("file", ".invalid"), aside);
    EXPECT_EQ(readText(path_ / aside), aside);
  }
}

TEST_F(PrivateDirectoryTest, WritesUnlessSomebodyElseHas) {
  const PrivateDirectory directory(path_);
  EXPECT_TRUE(directory.writeUnlessChanged("file", bytes("mine"), directory.version("file")));
  for (const bool replaces : {false, true}) {
    const auto seen = directory.version("file");
    writeText(path_ / (replaces ? "edited" : "file"), "theirs");
    if (replaces) fs::rename(path_ / "edited", path_ / "file");
    EXPECT_FALSE(directory.writeUnlessChanged("file", bytes("mine"), seen));
    EXPECT_EQ(readText(path_ / "file"), "theirs");
  }
  EXPECT_FALSE(fs::exists(path_ / "file.new"));
}

TEST_F(PrivateDirectoryTest, TheLockHasOneHolder) {
  std::atomic<int> inside = 0;
  const auto hold = [&] {
    const PrivateDirectory directory(path_);
    for (int round = 0; round < 200; ++round) {
      const auto locked = directory.lock();
      EXPECT_EQ(++inside, 1);
      --inside;
    }
  };
  std::vector<std::jthread> holders;
  for (int i = 0; i < 4; ++i) holders.emplace_back(hold);
}

}  // namespace
}  // namespace kestrune::linux_platform
