#pragma once

#include <string>
#include <utility>

#include "runtime/Error.h"

namespace kestrune::linux_platform {

/// What the system would not do, with a text for a person.
class SystemFailure final : public Error {
 public:
  explicit SystemFailure(std::string text) : text_(std::move(text)) {}
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

}  // namespace kestrune::linux_platform
