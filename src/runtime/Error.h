#pragma once

#include <exception>
#include <string>

namespace kestrune {

/// Base of every failure that a person may be shown.
class Error : public std::exception {
 public:
  /// The text that a person sees.
  virtual std::string localizedDescription() const = 0;
};

/// Thrown out of a wait of a cancelled task. Cancellation is used for every stop and is no failure.
class CancellationError final : public std::exception {
 public:
  const char* what() const noexcept override { return "cancelled"; }
};

/// The text for a person of any failure: an Error's own, or what() of another exception.
std::string localizedDescription(const std::exception_ptr& failure);

bool isCancellation(const std::exception_ptr& failure);

}  // namespace kestrune
