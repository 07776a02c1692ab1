#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>
#include <vector>

#include "Tone.h"
#include "capture/PCMConverter.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"
#include "platform/linux/stream/SystemScreenCapture.h"
#include "runtime/MonotonicTime.h"
#include "runtime/ThreadQueue.h"
#include "support/CapturedLog.h"
#include "support/FakeScreenCapture.h"
#include "support/FirstOutcome.h"
#include "support/SoundServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;
using testing::measure;
using testing::SoundServer;
using testing::tone;

/// A stream of a picture that never changes, with sound, and what it delivered as chunks.
class Listener {
 public:
  struct Heard {
    AudioPCMChunk chunk;
    std::int64_t arrival;  // microseconds, CLOCK_MONOTONIC
  };

  explicit Listener(const std::string& server, AudioChannelMode mode = AudioChannelMode::stereo)
      : mode_(mode) {
    SystemScreenCapture capture(pictures_, server);
    configuration_.channelCount = channelCount(mode);
    stream_ = capture.createStream({}, configuration_, {});
    stream_->addAudioOutput(queue_, [this](const AudioSample& sample) { take(sample); });
  }

  void update(const ScreenStreamConfiguration& configuration) {
    stream_->updateConfiguration(configuration, [](const auto& failure) { EXPECT_FALSE(failure); });
  }
  const ScreenStreamConfiguration& configuration() const { return configuration_; }
  /// "" or the failure. The fake picture completes at once.
  std::string start() {
    FirstOutcome<std::string> outcome;
    stream_->startCapture(
        [&](const auto& failure) { outcome.set(failure ? localizedDescription(failure) : ""); });
    return outcome.get();
  }
  void stop() {
    stream_->stopCapture([](const std::exception_ptr&) {});
  }
  std::shared_ptr<FakeStreamRecord> picture() const { return pictures_->latest(); }

  bool waitFor(const std::function<bool(const std::vector<Heard>&)>& condition) {
    std::unique_lock lock(lock_);
    return changed_.wait_for(lock, 15s, [&] { return condition(heard_); });
  }
  /// Waits for as many chunks from now on.
  bool hearMore(std::size_t count) {
    forget();
    return waitFor([count](const auto& heard) { return heard.size() >= count; });
  }
  /// Waits until the newest chunk is loud.
  bool waitForSound() {
    return waitFor([](const auto& heard) {
      const auto isLoud = [](double value) { return std::abs(value) > 1000; };
      return !heard.empty() && std::ranges::any_of(channel({heard.back()}, 0), isLoud);
    });
  }
  std::vector<Heard> heard() const {
    const std::lock_guard guard(lock_);
    return heard_;
  }
  void forget() {
    const std::lock_guard guard(lock_);
    heard_.clear();
  }
  /// One channel of all chunks, one behind the other.
  static std::vector<double> channel(const std::vector<Heard>& heard, std::size_t channel) {
    std::vector<double> samples;
    for (const Heard& one : heard) {
      const auto step = static_cast<std::size_t>(one.chunk.channels) * 2;
      for (std::size_t i = channel * 2; i < one.chunk.pcm.size(); i += step) {
        samples.push_back(static_cast<std::int16_t>(one.chunk.pcm[i] | one.chunk.pcm[i + 1] << 8));
      }
    }
    return samples;
  }

 private:
  void take(const AudioSample& sample) {
    auto chunk = converter_.convert(sample, mode_);
    const std::lock_guard guard(lock_);
    heard_.push_back({std::move(chunk), duration_cast<std::chrono::microseconds>(monotonicNow()).count()});
    changed_.notify_all();
  }

  const AudioChannelMode mode_;
  PCMConverter converter_{std::make_shared<SoxrSampleRateConverterFactory>()};
  mutable std::mutex lock_;  // guards heard_
  std::condition_variable changed_;
  std::vector<Heard> heard_;
  std::shared_ptr<FakeScreenCapture> pictures_ = std::make_shared<FakeScreenCapture>();
  ScreenStreamConfiguration configuration_;
  // Last, since their work uses the rest.
  std::shared_ptr<SerialQueue> queue_ = std::make_shared<ThreadQueue>("audio");
  std::unique_ptr<ScreenStream> stream_;
};

class SystemSoundTest : public ::testing::Test {
 protected:
  SystemSoundTest() {
    testing::writeStereo(file(), tone(440, 0.5, 60UL * 48000), tone(1000, 0.25, 60UL * 48000));
  }
  std::filesystem::path file() const { return server.folder() / "tone"; }
  /// Starts the listener and lets it hear the tones.
  void play(Listener& listener) {
    ASSERT_EQ(listener.start(), "");
    server.play("first", file());
    ASSERT_TRUE(listener.waitForSound());
  }

  CapturedLog log;
  SoundServer server;
};

TEST_F(SystemSoundTest, AToneComesOutAsItWentInAndInTime) {
  Listener listener(server.address());
  play(listener);
  ASSERT_TRUE(listener.hearMore(50));  // the delays are known well by now
  ASSERT_TRUE(listener.hearMore(300));
  const auto heard = listener.heard();

  for (const auto& [channel, own, other, amplitude] :
       {std::tuple{0U, 440, 1000, 0.5}, {1U, 1000, 440, 0.25}}) {
    const auto samples = Listener::channel(heard, channel);
    EXPECT_NEAR(measure(samples, own).amplitude, amplitude * 32767, 4);
    EXPECT_LT(measure(samples, own).worstSeam, 4);
    EXPECT_LT(measure(samples, other).amplitude, 4);
  }
  std::vector<std::int64_t> delays;
  for (std::size_t i = 0; i < heard.size(); ++i) {
    const auto time = static_cast<std::int64_t>(heard[i].chunk.captureTimeMicroseconds);
    EXPECT_EQ(heard[i].chunk.frameCount, 960);
    delays.push_back(heard[i].arrival - time);
    if (i == 0) continue;
    const auto before = static_cast<std::int64_t>(heard[i - 1].chunk.captureTimeMicroseconds);
    EXPECT_NEAR(static_cast<double>(time - before), 20'000, 3'000);
  }
  // Heard within this time around its arrival: in the near future if the sink has still to play it. The
  // median, since a busy machine delays single arrivals.
  const auto median = delays.begin() + static_cast<std::ptrdiff_t>(delays.size() / 2);
  std::nth_element(delays.begin(), median, delays.end());
  EXPECT_NEAR(static_cast<double>(*median), 0, 60'000);
}

TEST_F(SystemSoundTest, MonoIsTheMeanAndAChangedConfigurationIsTakenUp) {
  Listener listener(server.address(), AudioChannelMode::mono);
  play(listener);
  auto configuration = listener.configuration();
  configuration.sampleRate = 44100;
  configuration.channelCount = 2;
  listener.update(configuration);
  listener.forget();
  ASSERT_TRUE(listener.waitForSound());
  ASSERT_TRUE(listener.hearMore(50));
  ASSERT_TRUE(listener.hearMore(50));
  const auto samples = Listener::channel(listener.heard(), 0);
  EXPECT_NEAR(measure(samples, 440).amplitude, 0.25 * 32767, 40);
  EXPECT_NEAR(measure(samples, 1000).amplitude, 0.125 * 32767, 40);
}

TEST_F(SystemSoundTest, FollowsTheDefaultSinkAndOutlivesIt) {
  Listener listener(server.address());
  ASSERT_EQ(listener.start(), "");
  ASSERT_TRUE(listener.hearMore(5));
  ASSERT_EQ(server.control("load-module module-null-sink sink_name=second rate=44100"), 0);
  server.play("second", file());
  ASSERT_EQ(server.control("set-default-sink second"), 0);
  EXPECT_TRUE(listener.waitForSound());
  // With its sink gone the sound goes on, of the sink that is left.
  ASSERT_EQ(server.control("unload-module module-null-sink"), 0);
  ASSERT_EQ(server.control("load-module module-null-sink sink_name=third"), 0);
  listener.forget();
  server.play("third", file());
  EXPECT_TRUE(listener.waitForSound());
  EXPECT_TRUE(log.contains("info [Audio] System sound is recorded from third.monitor"));
}

TEST_F(SystemSoundTest, AMissingServerIsWaitedForAtTheStartAndAfterARestart) {
  server.end();
  Listener listener(server.address());
  ASSERT_EQ(listener.start(), "");
  std::this_thread::sleep_for(1s);  // several tries, which are one line in the log
  server.start();
  ASSERT_TRUE(listener.hearMore(5));
  const auto last = listener.heard().back().chunk.captureTimeMicroseconds;
  server.end();
  server.start();
  listener.forget();
  server.play("first", file());
  ASSERT_TRUE(listener.waitForSound());
  EXPECT_GE(listener.heard().front().chunk.captureTimeMicroseconds, last);
  const auto isOutage = [](const auto& line) { return line.find("No system sound") != std::string::npos; };
  EXPECT_EQ(std::ranges::count_if(log.lines(), isOutage), 2);
}

TEST_F(SystemSoundTest, AFrozenServerIsLeftAndTakenUpAgain) {
  Listener listener(server.address());
  ASSERT_EQ(listener.start(), "");
  ASSERT_TRUE(listener.hearMore(5));
  server.freeze();
  EXPECT_TRUE(testing::eventually([this] { return log.mentions("the sound server does not answer"); }));
  // Nothing waits for such a server: a stream starts and ends beside it.
  const auto begin = std::chrono::steady_clock::now();
  {
    Listener other(server.address());
    EXPECT_EQ(other.start(), "");
    other.stop();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
  server.thaw();
  EXPECT_TRUE(listener.hearMore(5));
}

TEST_F(SystemSoundTest, SoundRunsExactlyAsLongAsThePicture) {
  Listener failing(server.address());
  failing.picture()->outcomes.push_back(std::make_exception_ptr(std::runtime_error("no picture")));
  EXPECT_EQ(failing.start(), "no picture");

  Listener ended(server.address());
  ASSERT_EQ(ended.start(), "");
  ASSERT_TRUE(ended.hearMore(5));
  ended.picture()->onStopped(nullptr);  // the picture ends by itself

  Listener silent(server.address());
  auto configuration = silent.configuration();
  configuration.capturesAudio = false;
  ASSERT_EQ(silent.start(), "");
  silent.update(configuration);
  silent.stop();

  Listener stopped(server.address());
  ASSERT_EQ(stopped.start(), "");
  ASSERT_TRUE(stopped.hearMore(5));
  stopped.stop();
  Listener running(server.address());  // the others are silent for as long as this one has sound
  ASSERT_EQ(running.start(), "");
  for (Listener* one : {&failing, &ended, &silent, &stopped}) one->forget();
  ASSERT_TRUE(running.hearMore(25));
  for (Listener* one : {&failing, &ended, &silent, &stopped}) EXPECT_LE(one->heard().size(), 1U);
}

}  // namespace
}  // namespace kestrune::linux_platform
