#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/Log.h"

namespace kestrune {

/// Takes the process's log lines for as long as it lives.
class CapturedLog {
 public:
  CapturedLog() : sink_(std::make_shared<Sink>()), previous_(setLogSink(sink_)) {}
  ~CapturedLog() { setLogSink(previous_); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /// "info [Encoder] text" for each line, oldest first.
  std::vector<std::string> lines() const {
    const std::lock_guard lock(sink_->lock);
    return sink_->lines;
  }
  /// Whether some line has this text in it.
  bool mentions(std::string_view text) const {
    const auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
  }
  bool contains(std::string_view line) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

 private:
  struct Sink final : LogSink {
    mutable std::mutex lock;
    std::vector<std::string> lines;  // lock
    void write(LogLevel level, std::string_view /*subsystem*/, std::string_view category,
               std::string_view message) override {
      static constexpr const char* kNames[] = {"debug", "info", "notice", "error"};
      std::string line = kNames[static_cast<int>(level)];
      line.append(" [").append(category).append("] ").append(message);
      const std::lock_guard guard(lock);
      lines.push_back(std::move(line));
    }
  };
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<LogSink> previous_;
};

}  // namespace kestrune
