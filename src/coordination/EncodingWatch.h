#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "coordination/ErrorReport.h"
#include "coordination/ViewerRoutes.h"
#include "runtime/Clock.h"
#include "runtime/FailureLog.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Tells the viewers when the encoder gives no picture at all, since they would wait for one for ever, and
/// when it does again. Main queue only, but for notePacket(); owned by a shared_ptr.
class EncodingWatch final : public std::enable_shared_from_this<EncodingWatch> {
 public:
  struct Joints {
    std::function<bool()> isCapturing;
    std::function<bool()> isViewerConnected;
    /// The encoder has failed, and given no packet since.
    std::function<bool()> isEncodingFailing;
  };

  EncodingWatch(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const Clock> clock,
                std::shared_ptr<ViewerRoutes> routes, ErrorReport& errors, Joints joints);

  /// A failure of capture that the stream survives: records it, and logs it once, then counted.
  void handleCaptureError(const std::exception_ptr& failure);
  /// The encoder has given a packet. Any thread; costs next to nothing while nothing fails.
  void notePacket();

 private:
  void handleRecovery();

  /// The encoder gives no picture, in the stream state of this generation.
  struct Failure {
    std::uint64_t stateGeneration = 0;
    Duration since{};                 // of the continuous clock
    std::optional<std::string> told;  // what the viewers were told is wrong
  };

  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::shared_ptr<const Clock> clock_;
  const std::shared_ptr<ViewerRoutes> routes_;
  ErrorReport& errors_;
  const Joints joints_;
  FailureLog failureLog_;  // has a lock of its own
  std::optional<Failure> failure_;
  std::atomic<bool> hasFailure_{
      false};  // set on the main queue, cleared by the next packet on the encoder's thread
};

}  // namespace kestrune
