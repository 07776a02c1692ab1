#include "platform/linux/audio/PulseAudioCapture.h"

#include <pulse/mainloop.h>

#include <algorithm>
#include <bit>
#include <system_error>
#include <utility>

#include "platform/linux/audio/PulseConnection.h"
#include "runtime/Log.h"
#include "runtime/MonotonicTime.h"
#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

constexpr Logger kAudioLog("Audio");
constexpr int kTurnMicroseconds = 250'000;  // the longest sleep, for the sake of the deadlines
constexpr Duration kFirstPause = 250ms;
constexpr Duration kLongestPause = 5s;
constexpr int kPiecesPerSecond = 50;

}  // namespace

void PulseAudioCapture::LoopRelease::operator()(pa_mainloop* loop) const {
  pa_mainloop_free(loop);
}

PulseAudioCapture::PulseAudioCapture(std::string server, Format format,
                                     std::shared_ptr<SampleHandover> receiver)
    : server_(std::move(server)),
      format_(format),
      receiver_(std::move(receiver)),
      loop_(pa_mainloop_new()),
      pause_(kFirstPause),
      timeline_(format.sampleRate) {
  if (!loop_) throw std::system_error(errno, std::generic_category(), "sound capture");
  thread_ = std::thread([this] { run(); });
}

PulseAudioCapture::~PulseAudioCapture() {
  isEnding_ = true;
  pa_mainloop_wakeup(loop_.get());
  thread_.join();
}

void PulseAudioCapture::run() {
  nameThread("pulse-capture");
  while (!isEnding_) {
    superviseConnection();
    if (pa_mainloop_prepare(loop_.get(), kTurnMicroseconds) < 0 || pa_mainloop_poll(loop_.get()) < 0 ||
        pa_mainloop_dispatch(loop_.get()) < 0) {
      kAudioLog.error("System sound ended: the event loop failed");
      break;
    }
  }
  connection_.reset();
}

void PulseAudioCapture::superviseConnection() {
  const Duration now = monotonicNow();
  if (!connection_) {
    if (now < connectAt_) return;
    connect();
  }
  connection_->step(now);
  if (connection_->hasDelivered()) {
    pause_ = kFirstPause;
    reportSource();
  }
  if (connection_->failure().empty()) return;
  reportOutage(connection_->failure());
  connection_.reset();
  connectAt_ = monotonicNow() + pause_;
  pause_ = std::min(pause_ * 2, kLongestPause);
}

void PulseAudioCapture::connect() {
  gathered_.clear();
  timeline_.restart();
  isTimelineMeasured_ = false;
  connection_ = std::make_unique<PulseConnection>(
      pa_mainloop_get_api(loop_.get()), server_,
      PulseConnection::Format{format_.sampleRate, format_.channels},
      [this](const void* data, std::size_t bytes, std::optional<std::int64_t> captureTime) {
        take(data, bytes, captureTime);
      });
}

void PulseAudioCapture::reportOutage(const std::string& reason) {
  reportedSource_.clear();
  if (std::exchange(isOutageReported_, true)) return;
  kAudioLog.notice("No system sound (" + reason + "); the picture goes on without it");
}

void PulseAudioCapture::reportSource() {
  const std::string& source = connection_->sourceName();
  if (source.empty() || source == reportedSource_) return;
  reportedSource_ = source;
  isOutageReported_ = false;
  kAudioLog.info("System sound is recorded from " + source);
}

void PulseAudioCapture::take(const void* data, std::size_t bytes, std::optional<std::int64_t> captureTime) {
  const auto frameSize = sizeof(float) * static_cast<std::size_t>(format_.channels);
  const auto frames = [frameSize](std::size_t size) { return static_cast<std::int64_t>(size / frameSize); };
  const auto microseconds = [this](std::int64_t count) { return count * 1'000'000 / format_.sampleRate; };
  const auto pieceFrames = std::max(format_.sampleRate / kPiecesPerSecond, 1);
  const std::size_t pieceSize = frameSize * static_cast<std::size_t>(pieceFrames);
  if (bytes > pieceSize * kPiecesPerSecond) return;  // more than the server keeps

  if (captureTime || !timeline_.hasBegun()) {
    if (captureTime && !std::exchange(isTimelineMeasured_, true)) timeline_.restart();
    // Without a measurement the last frame is taken to be of this moment.
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(monotonicNow()).count();
    const auto time = captureTime.value_or(now - microseconds(frames(bytes)));
    timeline_.measured(time - microseconds(frames(gathered_.size())));
  }

  const auto* first = static_cast<const std::uint8_t*>(data);
  if (first != nullptr) {
    gathered_.insert(gathered_.end(), first, first + bytes);
  } else {
    gathered_.resize(gathered_.size() + bytes);  // a hole: zeros are silence
  }
  std::size_t used = 0;
  for (; gathered_.size() - used >= pieceSize; used += pieceSize) {
    AudioSample sample;
    sample.format = AudioFormat{.encoding = AudioFormat::Encoding::float32,
                                .isBigEndian = std::endian::native == std::endian::big,
                                .isInterleaved = true,
                                .sampleRate = format_.sampleRate,
                                .channels = format_.channels};
    sample.frameCount = pieceFrames;
    sample.presentationMicroseconds = timeline_.stamp(pieceFrames);
    const auto begin = gathered_.begin() + static_cast<std::ptrdiff_t>(used);
    sample.data.assign(begin, begin + static_cast<std::ptrdiff_t>(pieceSize));
    receiver_->push(std::move(sample));
  }
  gathered_.erase(gathered_.begin(), gathered_.begin() + static_cast<std::ptrdiff_t>(used));
}

}  // namespace kestrune::linux_platform
