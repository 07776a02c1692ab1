#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/audio/AudioTimeline.h"
#include "platform/linux/audio/SampleHandover.h"
#include "runtime/Clock.h"

struct pa_mainloop;

namespace kestrune::linux_platform {

class PulseConnection;

/// The system's sound: what the default sink of a PulseAudio server (PipeWire answers the same protocol)
/// plays, in pieces of 20 ms of interleaved 32-bit floats, stamped on CLOCK_MONOTONIC. Follows the default
/// sink. A server that is missing, goes away or stops answering is tried again for as long as this object
/// lives, at first at once and then every five seconds; each outage is logged once.
///
/// It has one thread ("pulse-capture"), which nothing else ever waits for, except the destructor, for as long
/// as one turn takes. This program plays no sound, so there is none of its own to leave out.
class PulseAudioCapture {
 public:
  struct Format {
    int sampleRate = 48000;
    int channels = 2;
    friend bool operator==(const Format&, const Format&) = default;
  };

  /// An empty server is the one of the environment (PULSE_SERVER, else the session's, else the system's).
  /// Samples go to `receiver`.
  PulseAudioCapture(std::string server, Format format, std::shared_ptr<SampleHandover> receiver);
  ~PulseAudioCapture();
  PulseAudioCapture(const PulseAudioCapture&) = delete;
  PulseAudioCapture& operator=(const PulseAudioCapture&) = delete;

 private:
  struct LoopRelease {
    void operator()(pa_mainloop* loop) const;
  };

  void run();
  /// One turn of the connection's life.
  void superviseConnection();
  void connect();
  void reportOutage(const std::string& reason);
  void reportSource();
  void take(const void* data, std::size_t bytes, std::optional<std::int64_t> captureTime);

  const std::string server_;
  const Format format_;
  const std::shared_ptr<SampleHandover> receiver_;
  const std::unique_ptr<pa_mainloop, LoopRelease> loop_;
  std::atomic<bool> isEnding_{false};

  // The thread's own.
  std::unique_ptr<PulseConnection> connection_;
  Duration connectAt_{};
  Duration pause_;
  bool isOutageReported_ = false;
  std::string reportedSource_;
  AudioTimeline timeline_;
  bool isTimelineMeasured_ = false;
  std::vector<std::uint8_t> gathered_;  // less than one piece

  std::thread thread_;
};

}  // namespace kestrune::linux_platform
