#pragma once

#include <map>
#include <string>

#include "platform/Bundle.h"

namespace kestrune::linux_platform {

/// A bundle whose resources are the files below one directory. Immutable once made.
class DirectoryBundle final : public Bundle {
 public:
  using Table = std::map<std::string, std::string, std::less<>>;

  /// `strings` maps the English texts to those of the user's language.
  DirectoryBundle(const std::filesystem::path& resources, Table information, Table strings = {});

  /// The bundle of the program whose executable is in `executableDirectory`. Info.json, a flat object of
  /// texts, stands beside the executable or in the resources. The resources are the directory that it names
  /// as "KestruneResourcesDirectory", else the first that exists of ../Resources, ../share/kestrune and
  /// ../../Resources. Translations are in `language`.json in the resources, tried for "de_AT" and then
  /// "de".
  static std::shared_ptr<DirectoryBundle> load(const std::filesystem::path& executableDirectory,
                                               const std::string& language);
  /// The same for the running program and the language of its environment.
  static std::shared_ptr<DirectoryBundle> ofRunningProgram();

  const std::filesystem::path& resources() const { return resources_; }

  std::string bundleIdentifier() const override { return "com.fennwick.Kestrune"; }
  std::optional<std::string> informationValue(std::string_view key) const override;
  std::optional<std::filesystem::path> resource(std::string_view name, std::string_view extension,
                                                std::string_view subdirectory) const override;
  std::optional<Bytes> read(const std::filesystem::path& file) const override;
  std::string localizedString(std::string_view key, std::string_view value) const override;

 private:
  const std::filesystem::path resources_;  // canonical; empty if there are none
  const Table information_;
  const Table strings_;
};

}  // namespace kestrune::linux_platform
