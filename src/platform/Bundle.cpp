#include "platform/Bundle.h"

#include <utility>

namespace kestrune {
namespace {

std::shared_ptr<const Bundle>& mainBundle() {
  static std::shared_ptr<const Bundle> bundle;
  return bundle;
}

}  // namespace

void setMainBundle(std::shared_ptr<const Bundle> bundle) {
  mainBundle() = std::move(bundle);
}

std::string localized(std::string_view english) {
  const auto& bundle = mainBundle();
  return bundle ? bundle->localizedString(english, english) : std::string(english);
}

}  // namespace kestrune
