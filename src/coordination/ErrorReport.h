#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "runtime/Published.h"

namespace kestrune {

/// Owns `lastError`, the message that the user last has to see. Main queue only.
class ErrorReport {
 public:
  using Listener = std::function<void(const std::optional<std::string>& message)>;

  const Observable<std::optional<std::string>>& lastError() const { return lastError_; }
  /// Called at every record() and clear(), also when the message stays the same. Set once.
  void setListener(Listener listener) { listener_ = std::move(listener); }

  void record(const std::optional<std::string>& message);
  void clear() { record(std::nullopt); }
  /// Records the failure's localized description, logs it, and returns it.
  std::string report(const std::exception_ptr& failure);

 private:
  Published<std::optional<std::string>> lastError_;
  Listener listener_;
};

}  // namespace kestrune
