#include "platform/linux/credentials/CredentialFile.h"

#include <algorithm>
#include <utility>

#include "platform/support/Encoding.h"
#include "platform/support/Json.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
const std::string kFileName = "credentials.json";
constexpr std::size_t kLargestFile = 8u << 20;

std::optional<CredentialFile::Item> parseItem(const JsonValue& value) {
  const auto text = [&](std::string_view name) -> const std::string* {
    const auto* member = value.find(name);
    return member ? member->string() : nullptr;
  };
  const auto* service = text("service");
  const auto* account = text("account");
  if (!service || !account) return {};
  CredentialFile::Item item{*service, *account, std::nullopt, false};
  if (value.find("data")) {
    const auto* encoded = text("data");
    item.data = encoded ? base64Decode(*encoded) : std::nullopt;
    if (!item.data) return {};
  }
  if (const auto* older = value.find("hasOlder")) item.hasOlder = older->boolean().value_or(false);
  return item;
}

std::optional<std::vector<CredentialFile::Item>> parseItems(const Bytes& bytes) {
  const auto parsed = parseJson({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  const auto* list = parsed ? parsed->find("items") : nullptr;
  if (!list || !list->array()) return {};
  std::vector<CredentialFile::Item> items;
  for (const auto& value : *list->array()) {
    auto item = parseItem(value);
    if (!item) return {};
    items.push_back(std::move(*item));
  }
  return items;
}

}  // namespace

CredentialFile::CredentialFile(const std::filesystem::path& directory)
    : directory_(directory), locked_(directory_.lock()) {
  load();
}

void CredentialFile::load() {
  const auto bytes = directory_.read(kFileName, kLargestFile);
  if (!bytes) return;
  if (auto items = parseItems(*bytes)) {
    items_ = std::move(*items);
    return;
  }
  const std::string aside = directory_.setAside(kFileName, ".invalid");
  kLog.error("The credentials file cannot be understood; it was set aside as " + aside);
}

void CredentialFile::store() const {
  JsonValue::Array list;
  for (const auto& item : items_) {
    JsonValue::Object members{{"service", item.service}, {"account", item.account}};
    if (item.data) members.emplace_back("data", base64Encode(*item.data));
    if (item.hasOlder) members.emplace_back("hasOlder", true);
    list.emplace_back(std::move(members));
  }
  const std::string text =
      serializeJson(JsonValue::Object{{"version", 1}, {"items", std::move(list)}}) + "\n";
  directory_.write(kFileName, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

const CredentialFile::Item* CredentialFile::find(const std::string& service,
                                                 const std::string& account) const {
  const auto found = std::find_if(items_.begin(), items_.end(), [&](const Item& item) {
    return item.service == service && item.account == account;
  });
  return found == items_.end() ? nullptr : &*found;
}

void CredentialFile::put(Item item) {
  std::erase_if(items_, [&](const Item& other) {
    return other.service == item.service && other.account == item.account;
  });
  items_.push_back(std::move(item));
  store();
}

void CredentialFile::remove(const std::string& service, const std::string& account) {
  std::erase_if(items_, [&](const Item& item) { return item.service == service && item.account == account; });
  store();
}

}  // namespace kestrune::linux_platform
