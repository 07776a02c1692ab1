#pragma once

#include <optional>
#include <string_view>

#include "platform/Bundle.h"

namespace kestrune {

/// A file of the viewer that the server delivers.
struct ViewerAsset {
  std::string_view resourcePath;  // relative to the viewer's directory of the bundle
  std::string_view contentType;
  std::string_view cacheControl;
};

/// The table of what may be asked for; nothing else of the file system can be reached. `path` is compared
/// exactly.
std::optional<ViewerAsset> assetForPath(std::string_view path);

/// The whole file from the first place in the bundle that has it and can be read.
std::optional<Bytes> loadViewerResource(const Bundle& bundle, std::string_view resourcePath);

}  // namespace kestrune
