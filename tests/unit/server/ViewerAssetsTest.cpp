#include <gtest/gtest.h>

#include "server/ViewerAssets.h"
#include "support/FakeBundle.h"

namespace kestrune {
namespace {

TEST(ViewerAssetsTest, KnowsExactPathsOnly) {
  EXPECT_EQ(assetForPath("/broadway/avc.wasm")->contentType, "application/wasm");
  for (const auto* path : {"", "/App.js", "/broadway", "/broadway/", "/Broadway/avc.wasm", "/../app.js",
                           "//app.js", "/etc/passwd"}) {
    EXPECT_FALSE(assetForPath(path)) << path;
  }
}

TEST(ViewerAssetsTest, LooksThroughTheBundleInOrder) {
  FakeBundle bundle;
  EXPECT_FALSE(loadViewerResource(bundle, "app.js"));
  bundle.files = {{"Resources/Viewer/app.js", "first"}, {"Viewer/app.js", "second"}};
  EXPECT_EQ(loadViewerResource(bundle, "app.js"), (Bytes{'f', 'i', 'r', 's', 't'}));
  bundle.unreadable = {"Resources/Viewer/app.js"};
  EXPECT_EQ(loadViewerResource(bundle, "app.js"), (Bytes{'s', 'e', 'c', 'o', 'n', 'd'}));
}

}  // namespace
}  // namespace kestrune
