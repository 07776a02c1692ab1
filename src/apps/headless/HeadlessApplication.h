#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "coordination/ApplicationDelegate.h"
#include "coordination/StreamCoordinator.h"
#include "runtime/ThreadQueue.h"

namespace kestrune {

/// The program without a window: starts the coordinator, tells on standard output what becomes of it, one
/// line each and at once, and ends in two steps. Main queue only.
///
///   Local viewer: URL     when the server is up
///   Phase: TITLE          at each change
///   Error: MESSAGE        at each new message
class HeadlessApplication final : public std::enable_shared_from_this<HeadlessApplication> {
 public:
  HeadlessApplication(std::shared_ptr<RunLoopQueue> mainQueue,
                      std::shared_ptr<StreamCoordinator> coordinator);

  /// Starts with the first turn of the main queue. Without a source to select, the server comes up alone.
  void launch(bool selectsDisplay);
  /// A request to end; the first one begins the shutdown, at whose end the main queue stops.
  void requestTermination();
  /// For after the main queue has stopped: not 0 if the program could not start.
  int exitCode() const { return exitCode_; }

 private:
  static Task<void> run(std::shared_ptr<HeadlessApplication> self, bool selectsDisplay);
  void observe();

  const std::shared_ptr<RunLoopQueue> mainQueue_;
  const std::shared_ptr<StreamCoordinator> coordinator_;
  std::shared_ptr<ApplicationDelegate> delegate_;
  std::vector<Observation> observations_;
  int exitCode_ = 0;
};

/// One whole line on standard output, at once. Line breaks within the text become spaces.
void printLine(std::string_view label, std::string text);

}  // namespace kestrune
