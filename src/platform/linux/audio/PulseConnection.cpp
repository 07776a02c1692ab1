#include "platform/linux/audio/PulseConnection.h"

#include <pulse/error.h>
#include <pulse/proplist.h>
#include <pulse/subscribe.h>
#include <pulse/timeval.h>

#include <algorithm>
#include <utility>

#include "runtime/MonotonicTime.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

constexpr Duration kSilenceLimit = 2s;        // of a server that should deliver; then it is asked
constexpr Duration kAnswerLimit = 4s;         // for any answer
constexpr Duration kStreamRetry = 500ms;      // after a stream was taken away
constexpr int kFragmentMilliseconds = 20;     // that the server gathers before it sends
constexpr unsigned kFirstMeasurements = 10;   // of the delay, after each of the first fragments
constexpr unsigned kMeasurementSpacing = 25;  // fragments from one to the next afterwards
constexpr int kMaximumMilliseconds = 1000;    // that the server keeps for a reader that is held up
/// Delays beyond it are errors of measurement.
constexpr pa_usec_t kPlausibleDelay = 5 * PA_USEC_PER_SEC;

PulseConnection* connection(void* userdata) {
  return static_cast<PulseConnection*>(userdata);
}

}  // namespace

void PulseConnection::ContextRelease::operator()(pa_context* context) const {
  pa_context_set_state_callback(context, nullptr, nullptr);
  pa_context_set_subscribe_callback(context, nullptr, nullptr);
  pa_context_disconnect(context);  // drops what is still unanswered, without a call
  pa_context_unref(context);
}

void PulseConnection::StreamRelease::operator()(pa_stream* stream) const {
  pa_stream_set_state_callback(stream, nullptr, nullptr);
  pa_stream_set_read_callback(stream, nullptr, nullptr);
  pa_stream_disconnect(stream);
  pa_stream_unref(stream);
}

PulseConnection::PulseConnection(pa_mainloop_api* loop, const std::string& server, Format format,
                                 Receiver receiver)
    : format_(format), receiver_(std::move(receiver)), lastHeard_(monotonicNow()) {
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "com.fennwick.Kestrune");
  context_.reset(pa_context_new_with_proplist(loop, "Kestrune", properties));
  pa_proplist_free(properties);
  if (!context_) {
    fail("no connection could be made");
    return;
  }
  pa_context_set_state_callback(
      context_.get(), [](pa_context*, void* self) { connection(self)->contextChanged(); }, this);
  pa_context_set_subscribe_callback(
      context_.get(),
      [](pa_context*, pa_subscription_event_type_t, std::uint32_t, void* self) {
        connection(self)->isLookupDue_ = true;
      },
      this);
  // A server is the session's to start, not ours.
  if (pa_context_connect(context_.get(), server.empty() ? nullptr : server.c_str(), PA_CONTEXT_NOAUTOSPAWN,
                         nullptr) < 0) {
    fail(pa_strerror(pa_context_errno(context_.get())));
  }
}

PulseConnection::~PulseConnection() = default;

void PulseConnection::fail(std::string reason) {
  if (failure_.empty()) failure_ = std::move(reason);
}

void PulseConnection::contextChanged() {
  lastHeard_ = monotonicNow();
  switch (pa_context_get_state(context_.get())) {
    case PA_CONTEXT_READY:
      isLookupDue_ = true;
      asked(pa_context_subscribe(
                context_.get(),
                static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK),
                [](pa_context*, int, void* self) {
                  connection(self)->answered(connection(self)->openRequests_);
                },
                this),
            openRequests_);
      break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
      fail(pa_strerror(pa_context_errno(context_.get())));
      break;
    default:
      break;
  }
}

void PulseConnection::step(Duration now) {
  if (!failure_.empty()) return;
  if (stream_ && !PA_STREAM_IS_GOOD(pa_stream_get_state(stream_.get()))) {
    closeStream();
    retryAt_ = now + kStreamRetry;
    isLookupDue_ = true;
  }
  const Duration silence = now - lastHeard_;
  if (isWaitingForServer()) {
    if (silence > kAnswerLimit) fail("the sound server does not answer");
  } else if (silence > kSilenceLimit) {
    isLookupDue_ = true;  // also the question whether the server is there
  }
  const bool isReady = failure_.empty() && pa_context_get_state(context_.get()) == PA_CONTEXT_READY;
  if (isReady && isLookupDue_ && !isLookupRunning_ && now >= retryAt_) lookUpDefaultSink();
}

void PulseConnection::closeStream() {
  stream_.reset();
  sourceName_.clear();
  openMeasurements_ = 0;  // what was asked for the stream is dropped with it, without a call
}

bool PulseConnection::isWaitingForServer() const {
  return openRequests_ > 0 || openMeasurements_ > 0 ||
         pa_context_get_state(context_.get()) != PA_CONTEXT_READY ||
         (stream_ && pa_stream_get_state(stream_.get()) == PA_STREAM_CREATING);
}

void PulseConnection::asked(pa_operation* operation, int& openRequests) {
  if (operation == nullptr) {
    fail(pa_strerror(pa_context_errno(context_.get())));
    return;
  }
  pa_operation_unref(operation);
  if (openRequests++ == 0) lastHeard_ = monotonicNow();
}

void PulseConnection::answered(int& openRequests) {
  --openRequests;
  lastHeard_ = monotonicNow();
}

void PulseConnection::lookUpDefaultSink() {
  isLookupDue_ = false;
  isLookupRunning_ = true;
  asked(pa_context_get_server_info(
            context_.get(),
            [](pa_context*, const pa_server_info* server, void* self) {
              connection(self)->answered(connection(self)->openRequests_);
              connection(self)->serverDescribed(server);
            },
            this),
        openRequests_);
}

void PulseConnection::serverDescribed(const pa_server_info* server) {
  const char* sink = server != nullptr ? server->default_sink_name : nullptr;
  if (sink == nullptr || *sink == '\0') {
    isLookupRunning_ = false;  // an event will tell when there is one
    return;
  }
  asked(pa_context_get_sink_info_by_name(
            context_.get(), sink,
            [](pa_context*, const pa_sink_info* found, int end, void* self) {
              connection(self)->sinkDescribed(found, end);
            },
            this),
        openRequests_);
}

void PulseConnection::sinkDescribed(const pa_sink_info* sink, int end) {
  if (end != 0) {  // the list is over, or the sink is gone again
    answered(openRequests_);
    isLookupRunning_ = false;
    return;
  }
  const std::string monitor = sink->monitor_source_name != nullptr ? sink->monitor_source_name : "";
  if (!monitor.empty() && monitor != sourceName_) record(monitor);
}

void PulseConnection::record(const std::string& sourceName) {
  closeStream();
  pa_sample_spec format{};
  format.format = PA_SAMPLE_FLOAT32NE;
  format.rate = static_cast<std::uint32_t>(format_.sampleRate);
  format.channels = static_cast<std::uint8_t>(format_.channels);
  stream_.reset(pa_stream_new(context_.get(), "System sound", &format, nullptr));
  if (!stream_) {
    fail(pa_strerror(pa_context_errno(context_.get())));
    return;
  }
  pa_stream_set_read_callback(
      stream_.get(), [](pa_stream*, std::size_t, void* self) { connection(self)->readAvailable(); }, this);
  const auto bytes = [&format](int milliseconds) {
    return static_cast<std::uint32_t>(
        pa_usec_to_bytes(static_cast<pa_usec_t>(milliseconds) * PA_USEC_PER_MSEC, &format));
  };
  pa_buffer_attr buffer{};
  buffer.maxlength = bytes(kMaximumMilliseconds);
  buffer.fragsize = bytes(kFragmentMilliseconds);
  // A server that moves streams when their source goes would move this one to a microphone.
  // The library's own interpolation needs a second to find the delay, and drags it: it is measured here.
  const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_DONT_MOVE | PA_STREAM_ADJUST_LATENCY);
  fragments_ = 0;
  nextFrameTime_.reset();
  lastHeard_ = monotonicNow();
  if (pa_stream_connect_record(stream_.get(), sourceName.c_str(), &buffer, flags) < 0) {
    fail(pa_strerror(pa_context_errno(context_.get())));
    return;
  }
  sourceName_ = sourceName;
}

void PulseConnection::readAvailable() {
  lastHeard_ = monotonicNow();
  while (pa_stream_readable_size(stream_.get()) > 0) {
    const void* data = nullptr;
    std::size_t bytes = 0;
    if (pa_stream_peek(stream_.get(), &data, &bytes) < 0 || bytes == 0) return;
    hasDelivered_ = true;
    receiver_(data, bytes, std::exchange(nextFrameTime_, std::nullopt));
    pa_stream_drop(stream_.get());
  }
  if (++fragments_ > kFirstMeasurements && fragments_ % kMeasurementSpacing != 0) return;
  asked(pa_stream_update_timing_info(
            stream_.get(),
            [](pa_stream*, int succeeded, void* self) {
              connection(self)->answered(connection(self)->openMeasurements_);
              if (succeeded != 0) connection(self)->measureDelay();
            },
            this),
        openMeasurements_);
}

/// A monitor's delay includes what the sink has still to play and is then negative: a sound's time is when it
/// is heard, as that of a picture is when it is seen.
void PulseConnection::measureDelay() {
  pa_usec_t size = 0;
  int isNegative = 0;
  if (pa_stream_get_latency(stream_.get(), &size, &isNegative) < 0 || size > kPlausibleDelay) return;
  const auto delay = static_cast<std::int64_t>(size);
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(monotonicNow()).count();
  nextFrameTime_ = isNegative != 0 ? now + delay : now - delay;
}

}  // namespace kestrune::linux_platform
