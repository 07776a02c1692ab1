#include "platform/linux/stream/SystemScreenCapture.h"

#include <mutex>
#include <optional>
#include <utility>

#include "platform/linux/audio/PulseAudioCapture.h"
#include "platform/linux/audio/SampleHandover.h"
#include "runtime/Error.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kAudioLog("Audio");

/// The sound of one stream, shared with the completions that are on their way. The owner's calls and the
/// picture's come from different threads.
class StreamSound {
 public:
  StreamSound(std::string server, const ScreenStreamConfiguration& configuration)
      : server_(std::move(server)), configuration_(configuration) {}

  void setOutput(std::shared_ptr<SerialQueue> queue, SampleHandover::Output output) {
    const std::lock_guard guard(lock_);
    handover_ = std::make_shared<SampleHandover>(std::move(queue), std::move(output));
  }
  void start() {
    const std::lock_guard guard(lock_);
    isRunning_ = !isEnded_;
    adopt();
  }
  void configure(const ScreenStreamConfiguration& configuration) {
    const std::lock_guard guard(lock_);
    configuration_ = configuration;
    adopt();
  }
  /// For good.
  void end() {
    const std::lock_guard guard(lock_);
    isEnded_ = true;
    isRunning_ = false;
    if (handover_) handover_->close();
    adopt();
  }

 private:
  /// Under lock_, which the capture's thread never takes. Starts, replaces or ends the capture.
  void adopt() {
    std::optional<PulseAudioCapture::Format> wanted;
    if (isRunning_ && handover_ && configuration_.capturesAudio) {
      wanted = PulseAudioCapture::Format{configuration_.sampleRate, configuration_.channelCount};
    }
    if (wanted == format_) return;
    format_ = wanted;
    capture_.reset();
    if (!wanted) return;
    try {
      capture_ = std::make_unique<PulseAudioCapture>(server_, *wanted, handover_);
    } catch (...) {
      kAudioLog.error("System sound cannot be recorded: " +
                      kestrune::localizedDescription(std::current_exception()));
    }
  }

  const std::string server_;
  std::mutex lock_;  // guards everything below
  ScreenStreamConfiguration configuration_;
  std::shared_ptr<SampleHandover> handover_;
  bool isRunning_ = false;
  bool isEnded_ = false;
  std::optional<PulseAudioCapture::Format> format_;  // of capture_
  std::unique_ptr<PulseAudioCapture> capture_;
};

class SystemCaptureStream final : public ScreenStream {
 public:
  SystemCaptureStream(std::unique_ptr<ScreenStream> pictures, std::shared_ptr<StreamSound> sound)
      : sound_(std::move(sound)), pictures_(std::move(pictures)) {}
  ~SystemCaptureStream() override { sound_->end(); }

  void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) override {
    pictures_->addVideoOutput(std::move(queue), std::move(output));
  }
  void addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) override {
    sound_->setOutput(std::move(queue), std::move(output));
  }
  void setContentChangeHandler(ContentChangeHandler handler) override {
    pictures_->setContentChangeHandler(std::move(handler));
  }
  void startCapture(StreamCompletion completion) override {
    pictures_->startCapture(
        [sound = sound_, completion = std::move(completion)](const std::exception_ptr& failure) {
          if (!failure) sound->start();
          if (completion) completion(failure);
        });
  }
  void stopCapture(StreamCompletion completion) override {
    sound_->end();
    pictures_->stopCapture(std::move(completion));
  }
  void updateConfiguration(const ScreenStreamConfiguration& configuration,
                           StreamCompletion completion) override {
    pictures_->updateConfiguration(configuration,
                                   [sound = sound_, configuration,
                                    completion = std::move(completion)](const std::exception_ptr& failure) {
                                     if (!failure) sound->configure(configuration);
                                     if (completion) completion(failure);
                                   });
  }
  void updateContentFilter(const ContentFilter& filter, StreamCompletion completion) override {
    pictures_->updateContentFilter(filter, std::move(completion));
  }
  void requestFrame() override { pictures_->requestFrame(); }

 private:
  const std::shared_ptr<StreamSound> sound_;
  const std::unique_ptr<ScreenStream> pictures_;
};

}  // namespace

SystemScreenCapture::SystemScreenCapture(std::shared_ptr<ScreenCapture> pictures, std::string soundServer)
    : pictures_(std::move(pictures)), soundServer_(std::move(soundServer)) {}

void SystemScreenCapture::shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                                           ContentCompletion completion) {
  pictures_->shareableContent(excludingDesktopWindows, onScreenWindowsOnly, std::move(completion));
}

ContentFilter SystemScreenCapture::filterForDisplay(const ShareableDisplay& display) const {
  return pictures_->filterForDisplay(display);
}

std::unique_ptr<ScreenStream> SystemScreenCapture::createStream(
    const ContentFilter& filter, const ScreenStreamConfiguration& configuration,
    ScreenStream::StopHandler onStopped) {
  const auto sound = std::make_shared<StreamSound>(soundServer_, configuration);
  auto pictures = pictures_->createStream(
      filter, configuration, [sound, onStopped = std::move(onStopped)](const std::exception_ptr& failure) {
        sound->end();
        if (onStopped) onStopped(failure);
      });
  return std::make_unique<SystemCaptureStream>(std::move(pictures), sound);
}

}  // namespace kestrune::linux_platform
