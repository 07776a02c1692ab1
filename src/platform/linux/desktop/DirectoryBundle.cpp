#include "platform/linux/desktop/DirectoryBundle.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "platform/linux/files/UserDirectories.h"
#include "platform/support/Json.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

constexpr Logger kLog("App");
constexpr std::uintmax_t kLargestFile = 64u << 20;
constexpr std::string_view kResourcesKey = "KestruneResourcesDirectory";

fs::path canonicalOrEmpty(const fs::path& path) {
  std::error_code error;
  auto canonical = fs::canonical(path, error);
  return error ? fs::path() : canonical;
}

std::optional<Bytes> readFile(const fs::path& file) {
  std::error_code error;
  const auto size = fs::file_size(file, error);  // fails for what is no regular file
  if (error || size > kLargestFile) return {};
  std::ifstream stream(file, std::ios::binary);
  Bytes bytes(static_cast<std::size_t>(size));
  stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
  if (!stream) return {};
  return bytes;
}

/// The texts of a flat JSON object; nothing if there is no such file.
std::optional<DirectoryBundle::Table> readTable(const fs::path& file) {
  const auto bytes = readFile(file);
  if (!bytes) return {};
  const auto parsed = parseJson({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  if (!parsed || !parsed->object()) {
    kLog.error("Not a JSON object: " + file.string());
    return {};
  }
  DirectoryBundle::Table table;
  for (const auto& [key, value] : *parsed->object()) {
    if (const auto* text = value.string()) table.insert_or_assign(key, *text);
  }
  return table;
}

bool staysInside(const fs::path& relative) {
  return relative.is_relative() && std::none_of(relative.begin(), relative.end(), [](const fs::path& part) {
           return part == ".." || part.native().find('\0') != std::string::npos;
         });
}

/// "de_AT.UTF-8@euro" gives "de_AT"; nothing for a language without translations.
std::string environmentLanguage() {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (!value || value[0] == '\0') continue;
    const std::string language(value);
    return language.substr(0, language.find_first_of(".@"));
  }
  return {};
}

DirectoryBundle::Table readStrings(const fs::path& resources, const std::string& language) {
  const auto isNameCharacter = [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-'; };
  if (language.empty() || !std::all_of(language.begin(), language.end(), isNameCharacter)) return {};
  for (const auto& name : {language, language.substr(0, language.find('_'))}) {
    if (auto strings = readTable(resources / (name + ".json"))) return *strings;
  }
  return {};
}

}  // namespace

DirectoryBundle::DirectoryBundle(const fs::path& resources, Table information, Table strings)
    : resources_(canonicalOrEmpty(resources)),
      information_(std::move(information)),
      strings_(std::move(strings)) {}

std::shared_ptr<DirectoryBundle> DirectoryBundle::load(const fs::path& executableDirectory,
                                                       const std::string& language) {
  auto information = readTable(executableDirectory / "Info.json");
  std::vector<fs::path> candidates;
  if (information) {
    if (const auto named = information->find(kResourcesKey); named != information->end()) {
      candidates.emplace_back(executableDirectory / named->second);
    }
  }
  for (const auto* relative : {"../Resources", "../share/kestrune", "../../Resources"}) {
    candidates.push_back(executableDirectory / relative);
  }
  const auto found = std::find_if(candidates.begin(), candidates.end(), [](const fs::path& candidate) {
    std::error_code error;
    return fs::is_directory(candidate, error);
  });
  if (found == candidates.end()) {
    kLog.error("No resources near " + executableDirectory.string());
    return std::make_shared<DirectoryBundle>(fs::path(), information.value_or(Table()));
  }
  if (!information) information = readTable(*found / "Info.json");
  return std::make_shared<DirectoryBundle>(*found, information.value_or(Table()),
                                           readStrings(*found, language));
}

std::shared_ptr<DirectoryBundle> DirectoryBundle::ofRunningProgram() {
  return load(runningExecutable().parent_path(), environmentLanguage());
}

std::optional<std::string> DirectoryBundle::informationValue(std::string_view key) const {
  const auto found = information_.find(key);
  if (found == information_.end()) return {};
  return found->second;
}

std::optional<fs::path> DirectoryBundle::resource(std::string_view name, std::string_view extension,
                                                  std::string_view subdirectory) const {
  std::string file(name);
  if (!extension.empty()) file.append(".").append(extension);
  const fs::path relative(file);
  const fs::path directory(subdirectory);
  if (resources_.empty() || name.empty() || !staysInside(relative) || !staysInside(directory)) return {};
  // Links are resolved before the check, so that none leads out.
  const fs::path resolved = canonicalOrEmpty(resources_ / directory / relative);
  const auto [rootEnd, ignored] =
      std::mismatch(resources_.begin(), resources_.end(), resolved.begin(), resolved.end());
  std::error_code error;
  if (rootEnd != resources_.end() || !fs::is_regular_file(resolved, error)) return {};
  return resolved;
}

std::optional<Bytes> DirectoryBundle::read(const fs::path& file) const {
  return readFile(file);
}

std::string DirectoryBundle::localizedString(std::string_view key, std::string_view value) const {
  const auto found = strings_.find(key);
  return found == strings_.end() ? std::string(value) : found->second;
}

}  // namespace kestrune::linux_platform
