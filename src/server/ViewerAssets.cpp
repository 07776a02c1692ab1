#include "server/ViewerAssets.h"

#include <algorithm>
#include <array>
#include <string>

namespace kestrune {
namespace {

constexpr std::string_view kHtml = "text/html; charset=utf-8";
constexpr std::string_view kScript = "text/javascript; charset=utf-8";
constexpr std::string_view kPlainText = "text/plain; charset=utf-8";
// The program's own files change with every version of it.
constexpr std::string_view kNoStore = "no-store";
constexpr std::string_view kOneDay = "public, max-age=86400";

struct Row {
  std::string_view path;
  ViewerAsset asset;
};

constexpr std::array<Row, 21> kAssets{{
    {"/", {"index.html", kHtml, kNoStore}},
    {"/index.html", {"index.html", kHtml, kNoStore}},
    {"/app.js", {"app.js", kScript, kNoStore}},
    {"/wire-protocol.js", {"wire-protocol.js", kScript, kNoStore}},
    {"/control-protocol.js", {"control-protocol.js", kScript, kNoStore}},
    {"/wire-runtime.js", {"wire-runtime.js", kScript, kNoStore}},
    {"/video-runtime.js", {"video-runtime.js", kScript, kNoStore}},
    {"/audio-runtime.js", {"audio-runtime.js", kScript, kNoStore}},
    {"/reporting.js", {"reporting.js", kScript, kNoStore}},
    {"/viewer-ui.js", {"viewer-ui.js", kScript, kNoStore}},
    {"/adaptive-quality.js", {"adaptive-quality.js", kScript, kNoStore}},
    {"/webcodecs-hevc.js", {"webcodecs-hevc.js", kScript, kNoStore}},
    {"/decoder-clock.js", {"decoder-clock.js", kScript, kNoStore}},
    {"/styles.css", {"styles.css", "text/css; charset=utf-8", kNoStore}},
    {"/broadway/Decoder.js", {"Broadway/Decoder.js", kScript, kOneDay}},
    {"/broadway/Player.js", {"Broadway/Player.js", kScript, kOneDay}},
    {"/broadway/YUVCanvas.js", {"Broadway/YUVCanvas.js", kScript, kOneDay}},
    {"/broadway/avc.wasm", {"Broadway/avc.wasm", "application/wasm", kOneDay}},
    {"/broadway/LICENSE.txt", {"Broadway/LICENSE.txt", kPlainText, kOneDay}},
    {"/broadway/APACHE-2.0.txt", {"Broadway/APACHE-2.0.txt", kPlainText, kOneDay}},
    {"/broadway/VENDORED.md", {"Broadway/VENDORED.md", "text/markdown; charset=utf-8", kOneDay}},
}};

}  // namespace

std::optional<ViewerAsset> assetForPath(std::string_view path) {
  const auto found =
      std::find_if(kAssets.begin(), kAssets.end(), [path](const Row& row) { return row.path == path; });
  if (found == kAssets.end()) return std::nullopt;
  return found->asset;
}

std::optional<Bytes> loadViewerResource(const Bundle& bundle, std::string_view resourcePath) {
  const auto slash = resourcePath.rfind('/');
  const bool hasDirectory = slash != std::string_view::npos;
  const std::string directory(hasDirectory ? resourcePath.substr(0, slash) : std::string_view());
  const auto file = hasDirectory ? resourcePath.substr(slash + 1) : resourcePath;
  const auto dot = file.rfind('.');
  const auto name = file.substr(0, dot);
  const auto extension = dot == std::string_view::npos ? std::string_view() : file.substr(dot + 1);

  // From the layout of a source tree to that of a flat bundle.
  const auto below = hasDirectory ? "/" + directory : std::string();
  const std::array<std::string, 4> candidates{"Resources/Viewer" + below, "Viewer" + below, directory, ""};
  for (const auto& subdirectory : candidates) {
    const auto found = bundle.resource(name, extension, subdirectory);
    if (!found) continue;
    if (auto bytes = bundle.read(*found)) return bytes;
  }
  return std::nullopt;
}

}  // namespace kestrune
