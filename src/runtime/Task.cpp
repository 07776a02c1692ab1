#include "runtime/Task.h"

namespace kestrune {

bool TaskContext::isCancelled() const {
  std::lock_guard guard(lock_);
  return cancelled_;
}

bool TaskContext::isFinished() const {
  std::lock_guard guard(lock_);
  return finished_;
}

std::exception_ptr TaskContext::failure() const {
  std::lock_guard guard(lock_);
  return failure_;
}

void TaskContext::cancel() {
  SerialQueue::Work hook;
  {
    std::lock_guard guard(lock_);
    if (cancelled_) return;
    cancelled_ = true;
    hook = std::move(cancelHook_);
    cancelHook_ = nullptr;
  }
  if (hook) hook();
}

bool TaskContext::setCancelHook(SerialQueue::Work hook) {
  std::lock_guard guard(lock_);
  if (cancelled_) return false;
  cancelHook_ = std::move(hook);
  return true;
}

void TaskContext::clearCancelHook() {
  SerialQueue::Work dropped;  // destroyed outside the lock
  std::lock_guard guard(lock_);
  std::swap(dropped, cancelHook_);
}

bool TaskContext::addWaiter(SerialQueue::Work waiter) {
  std::lock_guard guard(lock_);
  if (finished_) return false;
  waiters_.push_back(std::move(waiter));
  return true;
}

void TaskContext::setRoot(std::coroutine_handle<> root) {
  std::lock_guard guard(lock_);
  root_ = root;
}

void TaskContext::finish(std::exception_ptr failure) {
  std::vector<SerialQueue::Work> waiters;
  SerialQueue::Work hook;
  {
    std::lock_guard guard(lock_);
    finished_ = true;
    failure_ = std::move(failure);
    root_ = {};
    waiters.swap(waiters_);
    std::swap(hook, cancelHook_);
  }
  for (const auto& waiter : waiters) waiter();
}

void TaskContext::abandon() {
  std::coroutine_handle<> root;
  {
    std::lock_guard guard(lock_);
    root = std::exchange(root_, {});
  }
  if (!root) return;
  root.destroy();
  finish(std::make_exception_ptr(CancellationError()));
}

Resumption::~Resumption() {
  if (handle_) context_->abandon();
}

void Resumption::post(std::shared_ptr<Resumption> self) {
  if (const auto queue = self->context_->queue()) {
    queue->post([held = std::move(self)] { held->resumeHere(); });
  }
}

void Resumption::resumeHere() {
  const auto context = context_;
  const auto handle = std::exchange(handle_, {});
  if (handle) handle.resume();
}

namespace {

/// The outermost frame of a started task. It destroys itself at its end.
struct Root {
  struct promise_type {
    TaskContext* context = nullptr;
    std::shared_ptr<TaskContext> owner;

    Root get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
    std::suspend_always initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }  // everything is caught below
  };
  std::coroutine_handle<promise_type> handle;
};

Root runRoot(std::shared_ptr<TaskContext> context, Task<void> task) {
  std::exception_ptr failure;
  try {
    Task<void> body = std::move(task);
    co_await body;
  } catch (...) {
    failure = std::current_exception();
  }
  context->finish(std::move(failure));
}

}  // namespace

TaskHandle startTask(const std::shared_ptr<SerialQueue>& queue, Task<void> task) {
  auto context = std::make_shared<TaskContext>(queue);
  const Root root = runRoot(context, std::move(task));
  root.handle.promise().context = context.get();
  root.handle.promise().owner = context;
  context->setRoot(root.handle);
  auto resumption = std::make_shared<Resumption>(context, root.handle);
  Resumption::post(std::move(resumption));
  return TaskHandle(std::move(context));
}

void TaskHandle::whenFinished(SerialQueue::Work work) const {
  if (!context_) return;
  auto shared = std::make_shared<SerialQueue::Work>(std::move(work));
  auto post = [context = context_.get(), shared] {
    if (const auto queue = context->queue()) queue->post([shared] { (*shared)(); });
  };
  if (!context_->addWaiter(post)) post();
}

namespace detail {

bool SleepAwaiter::suspend(std::coroutine_handle<> handle) {
  if (context->isCancelled()) return false;
  const auto self = context->shared_from_this();
  auto resumption = std::make_shared<Resumption>(self, handle);
  const std::weak_ptr<Resumption> weak = resumption;
  const auto queue = self->queue();
  if (!queue) return true;  // abandoned as the only right to resume goes
  // From here on the frame that holds this awaiter may be dropped with its queue: locals only.
  const DelayedWork delayed = queue->postAfter(span, [held = std::move(resumption)] {
    if (held->claim()) held->resumeHere();
  });
  auto wake = [weak, delayed] {
    auto held = weak.lock();  // before the cancelled work releases it
    if (delayed.cancel() && held && held->claim()) Resumption::post(std::move(held));
  };
  if (!self->setCancelHook(wake)) wake();
  return true;
}

void SleepAwaiter::await_resume() const {
  context->clearCancelHook();
  if (context->isCancelled()) throw CancellationError();
}

}  // namespace detail

}  // namespace kestrune
