#include "coordination/ViewerAddress.h"

#include <exception>

#include "platform/support/Url.h"

namespace kestrune {

ViewerAddress::ViewerAddress(std::string serverURL, std::shared_ptr<TokenStore> tokens, ErrorReport& errors)
    : serverURL_(std::move(serverURL)), tokens_(std::move(tokens)), errors_(errors) {}

void ViewerAddress::refresh() {
  std::string token;
  try {
    token = tokens_->token();
  } catch (...) {
    local_ = "Unavailable";
    errors_.report(std::current_exception());
    return;
  }
  local_ = urlWithFragment(serverURL_, token).value_or(serverURL_);
}

}  // namespace kestrune
