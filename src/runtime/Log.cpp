#include "runtime/Log.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <utility>

#include "runtime/Error.h"

namespace kestrune {
namespace {

std::mutex sinkLock;  // guards the pointer below
/// Never destroyed: a detached thread may still log while the process exits.
std::shared_ptr<LogSink>& sinkSlot() {
  static auto* const sink = new std::shared_ptr<LogSink>(makeStandardErrorSink());
  return *sink;
}

constexpr std::string_view name(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug ";
    case LogLevel::info:
      return "info  ";
    case LogLevel::notice:
      return "notice";
    case LogLevel::error:
      return "error ";
  }
  return "?     ";
}

class StandardErrorSink final : public LogSink {
 public:
  explicit StandardErrorSink(LogLevel lowest) : lowest_(lowest) {}

  void write(LogLevel level, std::string_view, std::string_view category, std::string_view message) override {
    if (level < lowest_) return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm parts{};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 32> head{};
    const int length = std::snprintf(head.data(), head.size(), "%02d:%02d:%02d.%03ld ", parts.tm_hour,
                                     parts.tm_min, parts.tm_sec, now.tv_nsec / 1'000'000);
    std::string line(head.data(), static_cast<std::size_t>(length));
    line.append(name(level)).append(" [").append(category).append("] ");
    for (const char c : message) line.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c);
    line.push_back('\n');
    // One write keeps lines of several threads apart; a failing standard error is ignored.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  }

 private:
  const LogLevel lowest_;
};

}  // namespace

std::shared_ptr<LogSink> makeStandardErrorSink(LogLevel lowest) {
  return std::make_shared<StandardErrorSink>(lowest);
}

std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink) {
  std::lock_guard guard(sinkLock);
  return std::exchange(sinkSlot(), std::move(sink));
}

void Logger::write(LogLevel level, std::string_view message) const {
  std::shared_ptr<LogSink> sink;
  {
    std::lock_guard guard(sinkLock);
    sink = sinkSlot();
  }
  if (sink) sink->write(level, kSubsystem, category_, message);
}

std::string localizedDescription(const std::exception_ptr& failure) {
  if (!failure) return {};
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    return error.localizedDescription();
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "Unknown error";
  }
}

bool isCancellation(const std::exception_ptr& failure) {
  if (!failure) return false;
  try {
    std::rethrow_exception(failure);
  } catch (const CancellationError&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace kestrune
