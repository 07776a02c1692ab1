#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace kestrune {

/// info: a step; notice: what a user would care about (the default level); error: a failure.
enum class LogLevel { debug, info, notice, error };

/// Where log lines go. Called from any thread, one line at a time is not guaranteed: a sink orders itself.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(LogLevel level, std::string_view subsystem, std::string_view category,
                     std::string_view message) = 0;
};

/// Writes "HH:MM:SS.mmm LEVEL [category] message" to standard error, one write per line, from `lowest` up.
/// Control characters in a message are shown as "?", so that foreign text cannot forge a line.
std::shared_ptr<LogSink> makeStandardErrorSink(LogLevel lowest = LogLevel::info);

/// Replaces the process-wide sink and returns the one before; an empty sink drops everything.
std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink);

/// A named source of log lines. Tokens and credentials never go into a message. Any thread may log.
class Logger {
 public:
  static constexpr std::string_view kSubsystem = "com.fennwick.Kestrune";

  /// `category` must outlive the logger: "App", "Capture", "Encoder", "Audio", "Server", "Funnel",
  /// "Signaling", "Viewer".
  explicit constexpr Logger(std::string_view category) : category_(category) {}

  void debug(std::string_view message) const { write(LogLevel::debug, message); }
  void info(std::string_view message) const { write(LogLevel::info, message); }
  void notice(std::string_view message) const { write(LogLevel::notice, message); }
  void error(std::string_view message) const { write(LogLevel::error, message); }

 private:
  void write(LogLevel level, std::string_view message) const;

  std::string_view category_;
};

}  // namespace kestrune
