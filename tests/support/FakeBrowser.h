#pragma once

#include <algorithm>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Applications.h"
#include "platform/DisplayModes.h"
#include "platform/UserFiles.h"
#include "platform/VirtualDisplays.h"
#include "platform/Windows.h"
#include "support/FakeScreenCapture.h"

namespace kestrune {

/// How an instance of Chrome behaves.
struct ChromeBehaviour {
  Rect window{0, 0, 800, 600};
  int looksUntilWindow = 0;
  bool refusesToEnd = false;
};

struct FakeChrome final : RunningApplication {
  FakeChrome(ProcessID process_, ChromeBehaviour behaviour_) : process(process_), behaviour(behaviour_) {}
  ProcessID processIdentifier() const override { return process; }
  bool isTerminated() const override { return !isRunning; }
  void activate() override { calls.emplace_back("activate"); }
  void unhide() override { calls.emplace_back("unhide"); }
  void terminate() override { end("terminate"); }
  void forceTerminate() override { end("forceTerminate"); }
  void end(const char* call) {
    calls.emplace_back(call);
    isRunning = isRunning && behaviour.refusesToEnd;
  }

  const ProcessID process;
  ChromeBehaviour behaviour;
  bool isRunning = true;
  std::vector<std::string> calls;  // "place" too
};

/// Chrome on this machine: processes, and their windows.
class FakeBrowser final : public Applications, public Windows {
 public:
  bool isInstalled = true;
  ChromeBehaviour next;    // of what is started from now on
  bool holdsOpen = false;  // completions wait
  std::deque<OpenCompletion> waiting;
  std::vector<LaunchConfiguration> launches;
  std::vector<std::shared_ptr<FakeChrome>> chromes;  // all that ever ran

  std::shared_ptr<FakeChrome> add() {
    return chromes.emplace_back(std::make_shared<FakeChrome>(static_cast<ProcessID>(chromes.size()), next));
  }
  /// Ends the oldest start that waits, if there is one.
  void completeOpen() {
    if (waiting.empty()) return;
    const auto completion = std::move(waiting.front());
    waiting.pop_front();
    completion(add(), nullptr);
  }
  auto runningCount() const {
    return std::ranges::count_if(chromes, [](const auto& chrome) { return chrome->isRunning; });
  }

  std::optional<Application> find(std::string_view bundleIdentifier) const override {
    return isInstalled ? std::optional(Application{std::string(bundleIdentifier), "/chrome"}) : std::nullopt;
  }
  void open(const Application&, const LaunchConfiguration& configuration,
            OpenCompletion completion) override {
    launches.push_back(configuration);
    waiting.push_back(std::move(completion));
    if (!holdsOpen) completeOpen();
  }
  std::shared_ptr<RunningApplication> running(ProcessID process, std::string_view) override {
    return chromes.at(static_cast<std::size_t>(process));
  }
  std::vector<WindowInfo> onScreenWindows() override {
    std::vector<WindowInfo> windows;
    for (const auto& chrome : chromes) {
      if (!chrome->isRunning || chrome->behaviour.looksUntilWindow-- > 0) continue;
      windows.push_back({chrome->process, 0, chrome->behaviour.window});
    }
    return windows;
  }
  bool placeFirstWindow(ProcessID process, const Rect& frame) override {
    auto& chrome = *chromes.at(static_cast<std::size_t>(process));
    chrome.calls.emplace_back("place");
    chrome.behaviour.window = frame;
    return true;
  }
};

struct FakeUserFiles final : UserFiles {
  std::set<std::string> paths;

  std::string applicationSupportDirectory() const override { return "/data"; }
  void createDirectory(const std::string& path) override { paths.insert(path); }
  bool fileExists(const std::string& path) const override { return paths.contains(path); }
  std::optional<std::vector<std::string>> visibleNames(const std::string& directory) const override {
    std::vector<std::string> names;
    for (const auto& path : paths) {
      if (path.starts_with(directory + "/")) names.push_back(path.substr(directory.size() + 1));
    }
    return names.empty() ? std::nullopt : std::optional(names);
  }
};

/// Virtual displays with identifiers from 50 on, in the lists that the fakes of other ports read.
class FakeVirtualDisplays final : public VirtualDisplays, public DisplayArrangement {
 public:
  using List = std::vector<ShareableDisplay>;
  explicit FakeVirtualDisplays(std::vector<List*> lists_) : lists(std::move(lists_)) {}

  const std::vector<List*> lists;
  std::string failingStep;  // "settings", "screen", "begin", "origin" or "complete"
  int made = 0;

  bool areAvailable() const override { return true; }
  std::shared_ptr<VirtualDisplay> create(const VirtualDisplayDescriptor&) override {
    return std::make_shared<Made>(*this, static_cast<DisplayID>(50 + made++));
  }
  std::unique_ptr<DisplayConfiguration> begin() override {
    return failingStep == "begin" ? nullptr : std::make_unique<Configuration>(*this);
  }

 private:
  struct Made final : VirtualDisplay {
    Made(FakeVirtualDisplays& owner_, DisplayID id_) : owner(owner_), id(id_) {}
    ~Made() override {
      for (auto* list : owner.lists) std::erase_if(*list, [this](const auto& each) { return each.id == id; });
    }
    DisplayID displayID() const override { return id; }
    bool applySettings(const VirtualDisplaySettings&) override {
      if (owner.failingStep == "settings") return false;
      for (auto* list : owner.lists) {
        if (owner.failingStep != "screen") list->push_back({id, {0, 0, 1920, 1080}});
      }
      return true;
    }
    FakeVirtualDisplays& owner;
    const DisplayID id;
  };
  struct Configuration final : DisplayConfiguration {
    explicit Configuration(FakeVirtualDisplays& owner_) : owner(owner_) {}
    bool setOrigin(DisplayID, std::int32_t x, std::int32_t y) override {
      for (auto* list : owner.lists) list->back().frame = {1.0 * x, 1.0 * y, 1920, 1080};
      return owner.failingStep != "origin";
    }
    bool complete() override { return owner.failingStep != "complete"; }
    FakeVirtualDisplays& owner;
  };
};

struct FakeDisplayModes final : DisplayModes {
  std::vector<DisplayMode> modes;
  DisplayMode current;
  bool refuses = false;

  std::optional<DisplayMode> currentMode(DisplayID) const override { return current; }
  std::optional<std::vector<DisplayMode>> allModes(DisplayID) const override { return modes; }
  bool setMode(DisplayID, const DisplayMode& mode) override {
    if (!refuses) current = mode;
    return !refuses;
  }
};

}  // namespace kestrune
