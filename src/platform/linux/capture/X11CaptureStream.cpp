#include "platform/linux/capture/X11CaptureStream.h"

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/capture/CaptureSession.h"
#include "platform/linux/x11/EventFd.h"
#include "runtime/MonotonicTime.h"
#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {

namespace {

std::exception_ptr failure(const char* text) {
  return std::make_exception_ptr(X11Error(text));
}

void complete(const StreamCompletion& completion, std::exception_ptr outcome) {
  if (completion) completion(std::move(outcome));
}

}  // namespace

/// Shared by the stream's owner, its thread and the samples that are on their way.
class X11CaptureStream::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::shared_ptr<X11Server> server, const ContentFilter& filter,
       const ScreenStreamConfiguration& configuration, StopHandler onStopped)
      : server_(std::move(server)),
        onStopped_(std::move(onStopped)),
        filter_(filter),
        configuration_(configuration) {}

  void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) {
    const std::lock_guard guard(lock_);
    if (state_ != State::idle) throw X11Error("Outputs are added before the start.");
    videoQueue_ = std::move(queue);
    videoOutput_ = std::move(output);
  }
  void addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) {
    const std::lock_guard guard(lock_);
    if (state_ != State::idle) throw X11Error("Outputs are added before the start.");
    audioQueue_ = std::move(queue);
    audioOutput_ = std::move(output);
  }
  void setContentChangeHandler(ContentChangeHandler handler) {
    const std::lock_guard guard(lock_);
    if (state_ == State::idle) onContentChanged_ = std::move(handler);
  }
  void start(StreamCompletion completion);
  void stop(StreamCompletion completion);
  /// Runs `apply` on the stream's thread, or, before the start, only `store` here.
  void update(std::function<void(CaptureSession&)> apply, const std::function<void()>& store,
              StreamCompletion completion);
  void store(const ScreenStreamConfiguration& configuration) { configuration_ = configuration; }
  void store(const ContentFilter& filter) { filter_ = filter; }
  void requestFrame() {
    isFrameRequested_ = true;
    wake_->signal();
  }
  void endFromOwner();

 private:
  enum class State { idle, running, stopping, ended };
  struct Command {
    std::function<void(CaptureSession&)> apply;
    StreamCompletion completion;
  };

  void run();
  void capture();
  bool runCommands(CaptureSession& session);
  void sleep(CaptureSession& session, bool isRequested) const;
  void deliver(VideoSample sample);
  void completeStart(std::exception_ptr outcome);
  void finish(const std::exception_ptr& reason);

  const std::shared_ptr<X11Server> server_;
  const std::shared_ptr<X11Interrupt> interrupt_ = std::make_shared<X11Interrupt>();
  const StopHandler onStopped_;
  const std::shared_ptr<EventFd> wake_ = std::make_shared<EventFd>();
  std::atomic<bool> isFrameRequested_{false};

  std::mutex lock_;  // guards the rest, but for what only the thread uses after the start
  State state_ = State::idle;
  ContentFilter filter_;
  ScreenStreamConfiguration configuration_;
  std::shared_ptr<SerialQueue> videoQueue_;
  VideoOutput videoOutput_;
  std::shared_ptr<SerialQueue> audioQueue_;
  AudioOutput audioOutput_;
  std::vector<Command> commands_;
  std::vector<StreamCompletion> stopCompletions_;
  std::thread thread_;

  StreamCompletion startCompletion_;       // the thread's
  ContentChangeHandler onContentChanged_;  // the thread's
};

void X11CaptureStream::Core::start(StreamCompletion completion) {
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::idle) {
      state_ = State::running;
      startCompletion_ = std::move(completion);
      thread_ = std::thread([self = shared_from_this()] { self->run(); });
      return;
    }
  }
  complete(completion, failure("The stream was started before."));
}

void X11CaptureStream::Core::stop(StreamCompletion completion) {
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::running || state_ == State::stopping) {
      state_ = State::stopping;
      stopCompletions_.push_back(std::move(completion));
      wake_->signal();
      interrupt_->interrupt();
      return;
    }
  }
  complete(completion, failure("The stream is not running."));
}

void X11CaptureStream::Core::update(std::function<void(CaptureSession&)> apply,
                                    const std::function<void()>& store, StreamCompletion completion) {
  std::exception_ptr outcome;
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::running) {
      commands_.push_back({std::move(apply), std::move(completion)});
      wake_->signal();
      return;
    }
    if (state_ == State::idle) {
      store();
    } else {
      outcome = failure("The stream is not running.");
    }
  }
  complete(completion, outcome);
}

void X11CaptureStream::Core::endFromOwner() {
  std::thread thread;
  {
    const std::lock_guard guard(lock_);
    if (state_ == State::running) state_ = State::stopping;
    thread = std::move(thread_);
  }
  wake_->signal();
  interrupt_->interrupt();
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void X11CaptureStream::Core::run() {
  nameThread("x11-capture");
  // A picture that waits for its time goes out at that time and not 50 microseconds later.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  std::exception_ptr reason;
  try {
    capture();
  } catch (...) {
    reason = std::current_exception();
  }
  finish(reason);
}

void X11CaptureStream::Core::capture() {
  std::optional<CaptureSession> session;
  {
    ContentFilter filter;
    ScreenStreamConfiguration configuration;
    {
      const std::lock_guard guard(lock_);
      filter = filter_;
      configuration = configuration_;
    }
    session.emplace(
        server_->address(), filter, configuration, [wake = wake_] { wake->signal(); }, interrupt_);
  }
  bool isRequested = false;
  while (runCommands(*session)) {
    isRequested = isFrameRequested_.exchange(false) || isRequested;
    if (auto sample = session->next(monotonicNow(), isRequested)) {
      isRequested = false;
      completeStart(nullptr);
      deliver(std::move(*sample));
    } else {
      sleep(*session, isRequested);
    }
    // Whoever is told asks the server's state for the new layout: it must be there.
    if (session->takeContentChange() && onContentChanged_) {
      server_->refresh([handler = onContentChanged_](const X11Server::State&) { handler(); });
    }
  }
}

/// False once the stream is to stop.
bool X11CaptureStream::Core::runCommands(CaptureSession& session) {
  wake_->reset();
  std::vector<Command> commands;
  {
    const std::lock_guard guard(lock_);
    if (state_ != State::running) return false;
    commands = std::exchange(commands_, {});
  }
  for (const Command& command : commands) {
    std::exception_ptr outcome;
    try {
      command.apply(session);
    } catch (const X11Error&) {
      outcome = std::current_exception();
    }
    complete(command.completion, outcome);
  }
  return true;
}

void X11CaptureStream::Core::sleep(CaptureSession& session, bool isRequested) const {
  const CaptureSession::Wait wait = session.wait(isRequested);
  // Events that came with an answer are in the queue of xcb already: the socket does not become readable for
  // them.
  if (wait.listensToServer && session.readQueuedEvents()) return;
  timespec timeout{};
  if (wait.until) {
    const Duration left = std::max(*wait.until - monotonicNow(), Duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    timeout = {seconds.count(), (left - seconds).count()};
  }
  // Even a server that need not be listened to is noticed when it goes away.
  const short wanted = wait.listensToServer ? POLLIN : 0;
  std::array<pollfd, 2> sources{{{wake_->fd(), POLLIN, 0}, {session.fd(), wanted, 0}}};
  ppoll(sources.data(), sources.size(), wait.until ? &timeout : nullptr, nullptr);
}

void X11CaptureStream::Core::deliver(VideoSample sample) {
  std::shared_ptr<SerialQueue> queue;
  {
    const std::lock_guard guard(lock_);
    queue = videoQueue_;
  }
  if (!queue) return;
  queue->post([self = shared_from_this(), sample = std::move(sample)]() mutable {
    {
      const std::lock_guard guard(self->lock_);
      if (self->state_ != State::running) return;
    }
    // Does not change once the stream runs.
    self->videoOutput_(std::move(sample));
  });
}

void X11CaptureStream::Core::completeStart(std::exception_ptr outcome) {
  if (const auto completion = std::exchange(startCompletion_, nullptr)) completion(std::move(outcome));
}

/// `reason` is null after a stop.
void X11CaptureStream::Core::finish(const std::exception_ptr& reason) {
  std::vector<Command> commands;
  std::vector<StreamCompletion> stopCompletions;
  bool endedByItself = false;
  {
    const std::lock_guard guard(lock_);
    endedByItself = state_ == State::running;
    state_ = State::ended;
    commands = std::exchange(commands_, {});
    stopCompletions = std::exchange(stopCompletions_, {});
  }
  for (const Command& command : commands) complete(command.completion, failure("The stream is not running."));
  if (startCompletion_) {
    completeStart(reason ? reason : failure("The stream was stopped before it had started."));
  } else if (endedByItself && onStopped_) {
    onStopped_(reason);
  }
  for (const StreamCompletion& completion : stopCompletions) complete(completion, nullptr);
}

X11CaptureStream::X11CaptureStream(std::shared_ptr<X11Server> server, const ContentFilter& filter,
                                   const ScreenStreamConfiguration& configuration, StopHandler onStopped)
    : core_(std::make_shared<Core>(std::move(server), filter, configuration, std::move(onStopped))) {}

X11CaptureStream::~X11CaptureStream() {
  core_->endFromOwner();
}

void X11CaptureStream::addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) {
  core_->addVideoOutput(std::move(queue), std::move(output));
}

void X11CaptureStream::addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) {
  core_->addAudioOutput(std::move(queue), std::move(output));
}

void X11CaptureStream::setContentChangeHandler(ContentChangeHandler handler) {
  core_->setContentChangeHandler(std::move(handler));
}

void X11CaptureStream::startCapture(StreamCompletion completion) {
  core_->start(std::move(completion));
}

void X11CaptureStream::stopCapture(StreamCompletion completion) {
  core_->stop(std::move(completion));
}

void X11CaptureStream::updateConfiguration(const ScreenStreamConfiguration& configuration,
                                           StreamCompletion completion) {
  core_->update([configuration](CaptureSession& session) { session.setConfiguration(configuration); },
                [&] { core_->store(configuration); }, std::move(completion));
}

void X11CaptureStream::updateContentFilter(const ContentFilter& filter, StreamCompletion completion) {
  core_->update([filter](CaptureSession& session) { session.setFilter(filter); },
                [&] { core_->store(filter); }, std::move(completion));
}

void X11CaptureStream::requestFrame() {
  core_->requestFrame();
}

}  // namespace kestrune::linux_platform
