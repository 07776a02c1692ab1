#include <gtest/gtest.h>

#include "platform/linux/desktop/DirectoryBundle.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

class DirectoryBundleTest : public testing::Test {
 protected:
  void SetUp() override {
    writeText(resources_ / "Viewer" / "index.html", "<p>");
    writeText(resources_ / "Viewer" / "js" / "app.js", "js");
    writeText(resources_ / "Viewer" / "LICENSE", "free");
    writeText(top_.path() / "secret.txt", "secret");
  }

  const TemporaryDirectory top_;
  const fs::path resources_ = top_.path() / "Resources";
  const CapturedLog log_;
};

TEST_F(DirectoryBundleTest, FindsResources) {
  const DirectoryBundle bundle(resources_, {{"CFBundleVersion", "7"}}, {{"Hello", "Hallo"}});
  const auto page = bundle.resource("index", "html", "Viewer");
  ASSERT_TRUE(page);
  EXPECT_EQ(bundle.read(*page), (Bytes{'<', 'p', '>'}));
  EXPECT_TRUE(bundle.resource("app", "js", "Viewer/js"));
  EXPECT_TRUE(bundle.resource("LICENSE", "", "Viewer"));
  for (const auto* folder : {"", "Resources/Viewer"}) EXPECT_FALSE(bundle.resource("index", "html", folder));
  EXPECT_FALSE(bundle.resource("Viewer", "", ""));
  EXPECT_EQ(bundle.informationValue("CFBundleVersion"), "7");
  EXPECT_FALSE(bundle.informationValue("KestruneDistributionChannel"));
  EXPECT_EQ(bundle.localizedString("Hello", "Hello"), "Hallo");
  EXPECT_EQ(bundle.localizedString("Other", "Default"), "Default");
  EXPECT_FALSE(bundle.read(resources_ / "none"));
  EXPECT_FALSE(bundle.read(resources_));
}

TEST_F(DirectoryBundleTest, NeverLeavesTheResources) {
  fs::create_symlink(top_.path() / "secret.txt", resources_ / "Viewer" / "link.txt");
  fs::create_directory_symlink(top_.path(), resources_ / "up");
  writeText(top_.path() / "ResourcesToo" / "secret.txt", "secret");
  const DirectoryBundle bundle(resources_, {});
  const std::string top = top_.path().string();
  const auto isFound = [&](std::string_view folder, std::string_view name = "secret") {
    return bundle.resource(name, "txt", folder).has_value();
  };
  EXPECT_FALSE(isFound("..") || isFound("Viewer/../..") || isFound(top) || isFound("../ResourcesToo") ||
               isFound("up"));
  EXPECT_FALSE(isFound("", "../secret") || isFound("", top + "/secret") || isFound("Viewer", "link"));
  EXPECT_FALSE(bundle.resource(std::string_view("index\0", 6), "html", "Viewer"));
  EXPECT_FALSE(bundle.resource("", "html", "Viewer"));
  EXPECT_FALSE(bundle.resource("", "", ""));
  EXPECT_FALSE(DirectoryBundle(fs::path(), {}).resource("secret", "txt", ""));
}

TEST_F(DirectoryBundleTest, LoadsEveryLayout) {
  const auto source = top_.path() / "source";
  const std::string named =
      "{\"CFBundleVersion\":\"1\",\"KestruneResourcesDirectory\":\"" + resources_.string() + "\"}";
  writeText(source / "build" / "bin" / "Info.json", named);
  const auto build = DirectoryBundle::load(source / "build" / "bin", "");
  EXPECT_EQ(build->resources(), fs::canonical(resources_));
  EXPECT_EQ(build->informationValue("CFBundleVersion"), "1");

  const auto prefix = top_.path() / "prefix";
  fs::create_directories(prefix / "bin");
  writeText(prefix / "share/kestrune/Info.json", R"({"CFBundleShortVersionString":"2.0"})");
  writeText(prefix / "share/kestrune/de.json", R"({"Hello":"Hallo"})");
  writeText(prefix / "share/kestrune/de_AT.json", "not JSON");
  const auto installed = DirectoryBundle::load(prefix / "bin", "de_AT");
  EXPECT_EQ(installed->informationValue("CFBundleShortVersionString"), "2.0");
  EXPECT_EQ(installed->localizedString("Hello", "Hello"), "Hallo");
  EXPECT_EQ(DirectoryBundle::load(prefix / "bin", "../de")->localizedString("Hello", "Hello"), "Hello");

  fs::create_directories(top_.path() / "alone" / "one" / "two" / "bin");
  const auto alone = DirectoryBundle::load(top_.path() / "alone/one/two/bin", "");
  EXPECT_FALSE(alone->resource("index", "html", "Viewer"));
  EXPECT_TRUE(log_.mentions("No resources"));
}

}  // namespace
}  // namespace kestrune::linux_platform
