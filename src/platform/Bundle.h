#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Bytes.h"

namespace kestrune {

/// What is shipped beside the program. Any thread may call.
class Bundle {
 public:
  virtual ~Bundle() = default;
  virtual std::string bundleIdentifier() const = 0;
  /// "CFBundleVersion", "CFBundleShortVersionString", "KestruneDistributionChannel".
  virtual std::optional<std::string> informationValue(std::string_view key) const = 0;
  /// The file `name`.`extension` (no dot without an extension) in `subdirectory` of the resources (empty:
  /// their top). Nothing unless a regular file is there. The arguments never leave the resources.
  virtual std::optional<std::filesystem::path> resource(std::string_view name, std::string_view extension,
                                                        std::string_view subdirectory) const = 0;
  /// The whole file, or nothing on a read error.
  virtual std::optional<Bytes> read(const std::filesystem::path& file) const = 0;
  /// The translation of `key`, or `value`.
  virtual std::string localizedString(std::string_view key, std::string_view value) const = 0;
};

/// The main bundle, for the texts of errors and titles; null until the program has set it (texts are then
/// English). Set once, before other threads start.
void setMainBundle(std::shared_ptr<const Bundle> bundle);
/// `english` looked up in the main bundle's strings, as key and as default.
std::string localized(std::string_view english);

}  // namespace kestrune
