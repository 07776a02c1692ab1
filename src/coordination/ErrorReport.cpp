#include "coordination/ErrorReport.h"

#include "runtime/Error.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

void ErrorReport::record(const std::optional<std::string>& message) {
  lastError_ = message;
  if (listener_) listener_(message);
}

std::string ErrorReport::report(const std::exception_ptr& failure) {
  std::string message = localizedDescription(failure);
  record(message);
  kLog.error(message);
  return message;
}

}  // namespace kestrune
