#pragma once

#include <utility>

#include "runtime/Task.h"

namespace kestrune {

/// `task` as one that can be started by itself.
template <class Value>
Task<void> discardValue(Task<Value> task) {
  Task<Value> body = std::move(task);
  co_await body;
}

}  // namespace kestrune
