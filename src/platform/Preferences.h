#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "runtime/SerialQueue.h"

namespace kestrune {

using PreferenceValue = std::variant<bool, std::int64_t, double, std::string>;

/// The user's stored settings: a flat table of key to value. What is set holds at once, and is stored a
/// moment later without holding up the caller, at the latest when the object ends; what cannot be stored is
/// logged. Any thread may call.
///
/// The stored form may be changed by others as well, such as the user with an editor. What they write is
/// merged with what is set here, key by key: of two values for one key the later one holds, but one that is
/// set here and waits to be stored is not given up.
class Preferences {
 public:
  virtual ~Preferences() = default;
  virtual std::optional<PreferenceValue> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, PreferenceValue value) = 0;
  virtual void remove(std::string_view key) = 0;

  /// The keys that somebody else has set, changed or removed; value() tells what they are now.
  using ChangeObserver = std::function<void(const std::vector<std::string>& keys)>;
  /// Begins to watch for the changes of others and reports them to `observer` on `queue`, a moment after they
  /// happened. To be called at most once.
  virtual void observeExternalChanges(std::shared_ptr<SerialQueue> queue, ChangeObserver observer) = 0;
};

}  // namespace kestrune
