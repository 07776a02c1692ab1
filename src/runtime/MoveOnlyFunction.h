#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace kestrune {

template <class Signature>
class MoveOnlyFunction;

/// A callable that can hold move-only state, so that a frame or a completion is handed on by one move.
/// Calling an empty one is undefined; test it with operator bool first.
template <class Result, class... Arguments>
class MoveOnlyFunction<Result(Arguments...)> {
 public:
  MoveOnlyFunction() = default;
  MoveOnlyFunction(std::nullptr_t) {}

  // The constraint leaves copies and moves to their own constructors.
  template <class Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, MoveOnlyFunction> &&
           std::is_invocable_r_v<Result, std::remove_cvref_t<Callable>&, Arguments...>)
      // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
      MoveOnlyFunction(Callable&& callable)
      : target_(std::make_unique<Holder<std::remove_cvref_t<Callable>>>(std::forward<Callable>(callable))) {}

  explicit operator bool() const { return target_ != nullptr; }

  Result operator()(Arguments... arguments) const {
    return target_->invoke(std::forward<Arguments>(arguments)...);
  }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual Result invoke(Arguments... arguments) = 0;
  };
  template <class Callable>
  struct Holder final : Base {
    explicit Holder(const Callable& source) : callable(source) {}
    explicit Holder(Callable&& source) : callable(std::move(source)) {}
    Result invoke(Arguments... arguments) override {
      if constexpr (std::is_void_v<Result>) {
        callable(std::forward<Arguments>(arguments)...);
      } else {
        return callable(std::forward<Arguments>(arguments)...);
      }
    }
    Callable callable;
  };
  std::unique_ptr<Base> target_;
};

}  // namespace kestrune
