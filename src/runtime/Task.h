#pragma once

#include <atomic>
#include <coroutine>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "runtime/Error.h"
#include "runtime/SerialQueue.h"

/// Long flows as coroutines. A Task is lazy: it begins when it is awaited, or when startTask() gives it a
/// queue. It is always resumed on that queue, so between two co_await nothing else touches the queue's state.
///
/// Cancellation is cooperative: cancel() sets a flag and wakes a sleep; the sleep, or the next
/// `co_await checkCancellation()`, throws CancellationError. A task that was cancelled before its first turn
/// still begins and meets the flag at its first check.
///
/// Coroutines are free, static or member functions, never capturing lambdas: the captures die before the
/// frame. With g++ 12 no temporary with a destructor may stand in the arguments of a co_await expression, and
/// no co_await in the condition of an `if`; name it first. A task that must not keep its owner alive takes a
/// weak_ptr and locks it for one turn.
namespace kestrune {

template <class Value>
class Task;
class TaskHandle;
TaskHandle startTask(const std::shared_ptr<SerialQueue>& queue, Task<void> task);

/// What all coroutines below one startTask() share. Part of the runtime; use TaskHandle.
class TaskContext : public std::enable_shared_from_this<TaskContext> {
 public:
  explicit TaskContext(const std::shared_ptr<SerialQueue>& queue) : queue_(queue) {}

  /// Null once the queue has ended.
  std::shared_ptr<SerialQueue> queue() const { return queue_.lock(); }
  bool isCancelled() const;
  bool isFinished() const;
  std::exception_ptr failure() const;
  void cancel();

  /// Installs what cancel() calls while the task is suspended; false, and nothing installed, once cancelled.
  bool setCancelHook(SerialQueue::Work hook);
  void clearCancelHook();
  /// Calls `waiter` when the task has ended; false, and nothing kept, if it already has.
  bool addWaiter(SerialQueue::Work waiter);

  void setRoot(std::coroutine_handle<> root);
  /// The body has ended, with or without a failure; the frame goes by itself.
  void finish(std::exception_ptr failure);
  /// Nothing can ever resume the task again: its frames are destroyed and its waiters go on.
  void abandon();

 private:
  // Weak: the queue holds the tasks that sleep on it, and must be able to end under them.
  const std::weak_ptr<SerialQueue> queue_;
  mutable std::mutex lock_;  // guards everything below; never held across a call
  bool cancelled_ = false;
  bool finished_ = false;
  std::exception_ptr failure_;
  SerialQueue::Work cancelHook_;
  std::vector<SerialQueue::Work> waiters_;
  std::coroutine_handle<> root_;
};

/// The right to resume one suspended coroutine once. When the last owner drops it unused, the task is
/// abandoned: a queue that ends, or a completion that is dropped, leaks no frame.
class Resumption {
 public:
  Resumption(std::shared_ptr<TaskContext> context, std::coroutine_handle<> handle)
      : context_(std::move(context)), handle_(handle) {}
  Resumption(const Resumption&) = delete;
  Resumption& operator=(const Resumption&) = delete;
  ~Resumption();

  /// True for the first caller only, which must then call post() or resumeHere().
  bool claim() { return !claimed_.exchange(true); }
  /// Resumes on the task's queue. `self` keeps the right alive on its way there.
  static void post(std::shared_ptr<Resumption> self);
  /// Resumes on the calling thread, which must be running the task's queue.
  void resumeHere();
  /// Gives the right up without abandoning the task: the coroutine goes on without having been suspended.
  void disarm() { handle_ = {}; }

 private:
  const std::shared_ptr<TaskContext> context_;
  std::coroutine_handle<> handle_;
  std::atomic<bool> claimed_{false};
};

namespace detail {

struct PromiseBase {
  TaskContext* context = nullptr;
  std::coroutine_handle<> continuation;

  std::suspend_always initial_suspend() noexcept { return {}; }

  struct FinalAwaiter {
    bool await_ready() noexcept { return false; }
    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> handle) noexcept {
      return handle.promise().continuation ? handle.promise().continuation : std::noop_coroutine();
    }
    void await_resume() noexcept {}
  };
  FinalAwaiter final_suspend() noexcept { return {}; }
};

template <class Value>
struct Promise : PromiseBase {
  std::variant<std::monostate, Value, std::exception_ptr> result;

  Task<Value> get_return_object();
  void unhandled_exception() { result.template emplace<2>(std::current_exception()); }
  template <class Source>
  void return_value(Source&& source) {
    result.template emplace<1>(std::forward<Source>(source));
  }
  Value take() {
    if (result.index() == 2) std::rethrow_exception(std::get<2>(result));
    return std::move(std::get<1>(result));
  }
};

template <>
struct Promise<void> : PromiseBase {
  std::exception_ptr failure;

  Task<void> get_return_object();
  void unhandled_exception() { failure = std::current_exception(); }
  void return_void() {}
  void take() {
    if (failure) std::rethrow_exception(failure);
  }
};

}  // namespace detail

/// A flow that gives a Value or throws. Move-only; dropping it destroys its frame.
template <class Value = void>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::Promise<Value>;
  using Handle = std::coroutine_handle<promise_type>;

  explicit Task(Handle handle) : handle_(handle) {}
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Task() {
    if (handle_) handle_.destroy();
  }

  struct Awaiter {
    Handle handle;
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> parent) noexcept {
      handle.promise().context = parent.promise().context;
      handle.promise().continuation = parent;
      return handle;
    }
    Value await_resume() { return handle.promise().take(); }
  };
  Awaiter operator co_await() && { return Awaiter{handle_}; }
  Awaiter operator co_await() & { return Awaiter{handle_}; }

 private:
  Handle handle_;
};

namespace detail {
template <class Value>
Task<Value> Promise<Value>::get_return_object() {
  return Task<Value>(std::coroutine_handle<Promise>::from_promise(*this));
}
inline Task<void> Promise<void>::get_return_object() {
  return Task<void>(std::coroutine_handle<Promise>::from_promise(*this));
}
}  // namespace detail

/// A started task. Copies name the same task; dropping every handle does not stop it. Any thread may call.
class TaskHandle {
 public:
  TaskHandle() = default;
  explicit TaskHandle(std::shared_ptr<TaskContext> context) : context_(std::move(context)) {}

  explicit operator bool() const { return context_ != nullptr; }
  void reset() { context_.reset(); }
  void cancel() const {
    if (context_) context_->cancel();
  }
  /// True also for an empty handle.
  bool isFinished() const { return !context_ || context_->isFinished(); }
  bool isCancelled() const { return context_ && context_->isCancelled(); }
  /// What the body threw, if anything; a CancellationError counts.
  std::exception_ptr failure() const { return context_ ? context_->failure() : nullptr; }
  /// Two handles of the same task are equal.
  friend bool operator==(const TaskHandle&, const TaskHandle&) = default;

  /// Runs `work` on the task's queue when the task has ended, or posts it at once if it has. Where the queue
  /// has ended, `work` is dropped.
  void whenFinished(SerialQueue::Work work) const;

  struct FinishedAwaiter {
    std::shared_ptr<TaskContext> awaited;
    bool await_ready() const { return !awaited || awaited->isFinished(); }
    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> handle) {
      auto resumption = std::make_shared<Resumption>(handle.promise().context->shared_from_this(), handle);
      const bool waits = awaited->addWaiter([resumption] {
        if (resumption->claim()) Resumption::post(resumption);
      });
      if (!waits) resumption->disarm();
      return waits;
    }
    void await_resume() const {}
  };
  /// `co_await handle.finished()` goes on, on the awaiting task's own queue, when the task has ended, however
  /// it ended. It is not interrupted by cancellation of the awaiting task. Any number of tasks may wait.
  FinishedAwaiter finished() const { return FinishedAwaiter{context_}; }

 private:
  std::shared_ptr<TaskContext> context_;
};

/// Starts `task` with a turn of its own on `queue`; never runs any of it before it returns. The task does not
/// keep the queue alive; it is abandoned if the queue ends first.
TaskHandle startTask(const std::shared_ptr<SerialQueue>& queue, Task<void> task);

namespace detail {

struct SleepAwaiter {
  Duration span;
  TaskContext* context = nullptr;

  bool await_ready() const noexcept { return false; }
  template <class Promise>
  bool await_suspend(std::coroutine_handle<Promise> handle) {
    context = handle.promise().context;
    return suspend(handle);
  }
  void await_resume() const;

 private:
  bool suspend(std::coroutine_handle<> handle);
};

struct CancellationAwaiter {
  TaskContext* context = nullptr;
  bool throws;

  bool await_ready() const noexcept { return false; }
  template <class Promise>
  bool await_suspend(std::coroutine_handle<Promise> handle) noexcept {
    context = handle.promise().context;
    return false;
  }
  bool await_resume() const {
    const bool cancelled = context->isCancelled();
    if (cancelled && throws) throw CancellationError();
    return cancelled;
  }
};

}  // namespace detail

/// Suspends for `span` on the queue's clock; throws CancellationError as soon as the task is cancelled.
inline detail::SleepAwaiter sleepFor(Duration span) {
  return {span};
}
/// `co_await checkCancellation()` throws CancellationError if the task is cancelled; it never suspends.
inline detail::CancellationAwaiter checkCancellation() {
  return {nullptr, true};
}
/// `co_await isTaskCancelled()` gives the flag; it never suspends.
inline detail::CancellationAwaiter isTaskCancelled() {
  return {nullptr, false};
}

/// For completions without a value.
struct Unit {};

/// The way back from a callback to the task that waits for it. Any thread may call it; the first call counts.
/// If every copy is dropped uncalled, the task is abandoned.
template <class Value>
class Completion {
 public:
  using Slot = std::variant<std::monostate, Value, std::exception_ptr>;

  Completion(std::shared_ptr<Slot> slot, std::shared_ptr<Resumption> resumption)
      : slot_(std::move(slot)), resumption_(std::move(resumption)) {}

  void operator()(Value value) const {
    if (!resumption_->claim()) return;
    slot_->template emplace<1>(std::move(value));
    Resumption::post(resumption_);
  }
  void fail(std::exception_ptr failure) const {
    if (!resumption_->claim()) return;
    slot_->template emplace<2>(std::move(failure));
    Resumption::post(resumption_);
  }

 private:
  std::shared_ptr<Slot> slot_;
  std::shared_ptr<Resumption> resumption_;
};

/// `Value value = co_await awaitCallback<Value>(start)` calls start(Completion<Value>) and resumes, on the
/// task's queue, with what the completion was given, or throws what it failed with, or what start() threw.
/// Cancellation does not interrupt it. `start` is a named object: auto start = [...](Completion<Value> done)
/// {...};
template <class Value, class Start>
struct CallbackAwaiter {
  Start start;
  std::shared_ptr<typename Completion<Value>::Slot> slot =
      std::make_shared<typename Completion<Value>::Slot>();

  bool await_ready() const noexcept { return false; }
  template <class Promise>
  void await_suspend(std::coroutine_handle<Promise> handle) {
    // The frame that holds this awaiter may be dropped as soon as `resumption` goes: locals only.
    auto call = std::move(start);
    auto resumption = std::make_shared<Resumption>(handle.promise().context->shared_from_this(), handle);
    const Completion<Value> completion(slot, std::move(resumption));
    try {
      call(completion);
    } catch (...) {
      completion.fail(std::current_exception());
    }
  }
  Value await_resume() {
    if (slot->index() == 2) std::rethrow_exception(std::get<2>(*slot));
    return std::move(std::get<1>(*slot));
  }
};

template <class Value, class Start>
CallbackAwaiter<Value, Start> awaitCallback(Start start) {
  return {std::move(start)};
}

}  // namespace kestrune
