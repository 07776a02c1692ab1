#include "runtime/FailureLog.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrune {
namespace {

std::string repeated(const std::string& text, std::uint64_t count) {
  return text + " (" + std::to_string(count) + (count == 1 ? " more time)" : " more times)");
}

}  // namespace

FailureLog::FailureLog(Logger log, std::shared_ptr<const Clock> clock)
    : log_(log), clock_(std::move(clock)) {}

FailureLog::~FailureLog() {
  for (const Run& run : runs_) {
    if (run.unlogged > 0) log_.error(repeated(run.text, run.unlogged));
  }
}

void FailureLog::failed(const std::string& text) {
  std::string line;
  {
    const std::lock_guard guard(lock_);
    const Duration now = clock_->continuousNow();
    const auto run = std::ranges::find(runs_, text, &Run::text);
    if (run == runs_.end()) {
      if (runs_.size() == kMostTexts) runs_.erase(std::ranges::min_element(runs_, {}, &Run::last));
      runs_.push_back({.text = text, .last = now, .nextSummary = now + kFirstInterval});
      hasRuns_ = true;
      line = text;
    } else {
      ++run->count;
      ++run->unlogged;
      run->last = now;
      if (now < run->nextSummary) return;
      line = repeated(text, std::exchange(run->unlogged, 0));
      run->interval = std::min(run->interval * 2, kLongestInterval);
      run->nextSummary = now + run->interval;
    }
  }
  log_.error(line);
}

void FailureLog::succeeded() {
  if (!hasRuns_) return;
  std::vector<Run> ended;
  {
    const std::lock_guard guard(lock_);
    const Duration now = clock_->continuousNow();
    const auto isOver = [now](const Run& run) { return now - run.last >= kQuiet; };
    std::ranges::copy_if(runs_, std::back_inserter(ended), isOver);
    std::erase_if(runs_, isOver);
    hasRuns_ = !runs_.empty();
  }
  for (const Run& run : ended) {
    if (run.count > 1) log_.notice("Over after " + std::to_string(run.count) + " times: " + run.text);
  }
}

}  // namespace kestrune
