#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "model/KestruneError.h"
#include "platform/Bundle.h"
#include "platform/ScreenStream.h"
#include "runtime/Task.h"

namespace kestrune {

/// Waits for an operation of a screen stream; gives its failure, or what starting it threw, or null.
inline Task<std::exception_ptr> outcomeOf(std::function<void(StreamCompletion completion)> operation) {
  auto begin = [&operation](Completion<std::exception_ptr> done) { operation(std::move(done)); };
  try {
    co_return co_await awaitCallback<std::exception_ptr>(begin);
  } catch (...) {
    co_return std::current_exception();
  }
}

/// An operationFailed of `format`, localized, with the failure's description in place of "%@".
inline KestruneError operationFailed(std::string_view format, const std::exception_ptr& failure) {
  std::string message = localized(format);
  constexpr std::string_view kPlace = "%@";
  if (const auto place = message.find(kPlace); place != std::string::npos) {
    message.replace(place, kPlace.size(), localizedDescription(failure));
  }
  return KestruneError::operationFailed(std::move(message));
}

}  // namespace kestrune
