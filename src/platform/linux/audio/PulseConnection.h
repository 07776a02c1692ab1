#pragma once

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>
#include <pulse/stream.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// One connection to a sound server, from the attempt to its end: records the monitor of the default sink as
/// 32-bit floats in the byte order of this machine, and follows the default sink. Confined to the thread that
/// runs the main loop; ends within itself, and is only ever replaced, not revived.
class PulseConnection {
 public:
  struct Format {
    int sampleRate = 48000;
    int channels = 2;
  };
  /// Whole frames, or null for as many bytes of silence, and the capture time of the first in microseconds of
  /// CLOCK_MONOTONIC where it was measured anew; else the frames follow those before.
  using Receiver =
      std::function<void(const void* data, std::size_t bytes, std::optional<std::int64_t> captureTime)>;

  /// An empty server is the one of the environment.
  PulseConnection(pa_mainloop_api* loop, const std::string& server, Format format, Receiver receiver);
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  /// To be called after each turn of the main loop, and a few times a second. Does what callbacks of the
  /// library must not, and asks a server that has become silent whether it is there.
  void step(Duration now);
  /// Why this connection is over; empty while it is not.
  const std::string& failure() const { return failure_; }
  bool hasDelivered() const { return hasDelivered_; }
  /// What is recorded, or empty.
  const std::string& sourceName() const { return sourceName_; }

 private:
  struct ContextRelease {
    void operator()(pa_context* context) const;
  };
  struct StreamRelease {
    void operator()(pa_stream* stream) const;
  };

  void fail(std::string reason);
  void contextChanged();
  void lookUpDefaultSink();
  void serverDescribed(const pa_server_info* server);
  void sinkDescribed(const pa_sink_info* sink, int end);
  void record(const std::string& sourceName);
  void readAvailable();
  void measureDelay();
  bool isWaitingForServer() const;
  /// Counts a request until its answer; a null operation is a failure of the connection.
  void asked(pa_operation* operation, int& openRequests);
  void answered(int& openRequests);
  void closeStream();

  const Format format_;
  const Receiver receiver_;
  std::string failure_;
  int openRequests_ = 0;      // about the server
  int openMeasurements_ = 0;  // of the stream's delay
  Duration lastHeard_;        // CLOCK_MONOTONIC, like every time here
  bool isLookupRunning_ = false;
  bool isLookupDue_ = false;
  bool hasDelivered_ = false;
  std::string sourceName_;
  unsigned fragments_ = 0;  // that the stream has delivered
  std::optional<std::int64_t> nextFrameTime_;
  Duration retryAt_{};  // not before it is a lost stream opened again
  std::unique_ptr<pa_context, ContextRelease> context_;
  std::unique_ptr<pa_stream, StreamRelease> stream_;
};

}  // namespace kestrune::linux_platform
