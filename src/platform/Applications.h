#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

using ProcessID = std::int32_t;

/// An application that is installed.
struct Application {
  std::string bundleIdentifier;
  std::string path;  // of what is executed
};

/// How an application is started: always as a process of its own, which comes to the front.
struct LaunchConfiguration {
  std::vector<std::string> arguments;  // as they stand: no shell reads them
  /// The display that its windows open on. Where displays belong to one desktop, the arguments decide.
  DisplayID display = 0;
};

/// An application that was started, with all processes that it started itself: the process may hand over to
/// another one. Main queue only; no call waits for the application.
class RunningApplication {
 public:
  virtual ~RunningApplication() = default;

  /// The process that owns the windows: after a hand-over the one that was handed over to.
  virtual ProcessID processIdentifier() const = 0;
  /// Nothing of it runs any more.
  virtual bool isTerminated() const = 0;
  /// Brings it to the front.
  virtual void activate() = 0;
  /// Shows windows that are hidden or minimized.
  virtual void unhide() = 0;
  /// Asks it to end in good order, so that it can save what it has open. Nothing if it has ended.
  virtual void terminate() = 0;
  /// Ends all of its processes at once. Nothing if it has ended.
  virtual void forceTerminate() = 0;
};

/// The applications of the machine. Main queue only.
class Applications {
 public:
  /// Exactly one of the two, or neither where the system gave no answer.
  using OpenCompletion =
      std::function<void(std::shared_ptr<RunningApplication> application, std::exception_ptr failure)>;

  virtual ~Applications() = default;

  /// The application of a bundle identifier, such as "com.google.Chrome".
  virtual std::optional<Application> find(std::string_view bundleIdentifier) const = 0;
  /// Starts a new instance. It goes on when the program ends, unless its display ends with it. Completes
  /// once, on a thread of the system's choice.
  virtual void open(const Application& application, const LaunchConfiguration& configuration,
                    OpenCompletion completion) = 0;
  /// The running application that a process belongs to, if it is the application of that bundle identifier;
  /// also one that an earlier run of this program has started.
  virtual std::shared_ptr<RunningApplication> running(ProcessID process,
                                                      std::string_view bundleIdentifier) = 0;
};

}  // namespace kestrune
