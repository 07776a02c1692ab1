#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Bundle.h"

namespace kestrune {

/// Files in memory under "subdirectory/name.extension".
class FakeBundle final : public Bundle {
 public:
  std::map<std::string, std::string> files;
  std::set<std::string> unreadable;
  mutable std::vector<std::string> lookups;

  std::string bundleIdentifier() const override { return "test.bundle"; }
  std::optional<std::string> informationValue(std::string_view) const override { return {}; }
  std::optional<std::filesystem::path> resource(std::string_view name, std::string_view extension,
                                                std::string_view subdirectory) const override {
    std::string path(subdirectory);
    if (!path.empty()) path += '/';
    path += name;
    if (!extension.empty()) path.append(".").append(extension);
    lookups.push_back(path);
    return files.contains(path) ? std::optional<std::filesystem::path>(path) : std::nullopt;
  }
  std::optional<Bytes> read(const std::filesystem::path& file) const override {
    const auto found = files.find(file.string());
    if (found == files.end() || unreadable.contains(file.string())) return std::nullopt;
    return Bytes(found->second.begin(), found->second.end());
  }
  std::string localizedString(std::string_view, std::string_view value) const override {
    return std::string(value);
  }
};

}  // namespace kestrune
