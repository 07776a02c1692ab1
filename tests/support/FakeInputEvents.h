#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/InputEvents.h"
#include "platform/PrivacyPermissions.h"

namespace kestrune {

/// Records the events that are posted, one line each, and refuses those it is told to:
///   "mouse 1 (10, 20) button 0", "scroll -120 0", "key 36 down", "key 0 down 'text'", "system ...".
class FakeInputEvents final : public InputEvents {
 public:
  std::vector<std::string> posted;
  std::vector<std::u16string> texts;              // of the keyboard events posted, downs and ups
  std::vector<SystemDefinedEvent> systemDefined;  // posted
  std::optional<Point> cursor;
  bool refusesSources = false;
  /// Events that can still be made before the system refuses; no limit where empty.
  std::optional<int> eventsLeft;
  std::function<void()> beforePost;  // runs within each post()

  std::vector<std::string> takePosted() { return std::exchange(posted, {}); }

  std::unique_ptr<InputEventSource> createSource() override {
    return refusesSources ? nullptr : std::make_unique<Source>(*this);
  }
  std::optional<Point> cursorLocation() override { return cursor; }
  std::unique_ptr<InputEvent> systemDefinedEvent(const SystemDefinedEvent& description) override {
    return make("system", [this, description] { systemDefined.push_back(description); });
  }

 private:
  class Event final : public InputEvent {
   public:
    Event(FakeInputEvents& owner, std::string line, std::function<void()> also)
        : owner_(owner), line_(std::move(line)), also_(std::move(also)) {}
    void setUnicodeString(std::u16string_view text) override { text_ = text; }
    void post() override {
      if (owner_.beforePost) owner_.beforePost();
      owner_.posted.push_back(line_);
      if (text_) owner_.texts.push_back(*text_);
      if (also_) also_();
    }

   private:
    FakeInputEvents& owner_;
    const std::string line_;
    const std::function<void()> also_;
    std::optional<std::u16string> text_;
  };

  class Source final : public InputEventSource {
   public:
    explicit Source(FakeInputEvents& owner) : owner_(owner) {}
    std::unique_ptr<InputEvent> mouseEvent(MouseEventType type, Point position, MouseButton button) override {
      return owner_.make("mouse " + std::to_string(static_cast<int>(type)) + " (" + number(position.x) +
                         ", " + number(position.y) + ") button " + std::to_string(static_cast<int>(button)));
    }
    std::unique_ptr<InputEvent> scrollEvent(std::int32_t wheel1, std::int32_t wheel2) override {
      return owner_.make("scroll " + std::to_string(wheel1) + " " + std::to_string(wheel2));
    }
    std::unique_ptr<InputEvent> keyboardEvent(std::uint16_t keyCode, bool isDown) override {
      return owner_.make("key " + std::to_string(keyCode) + (isDown ? " down" : " up"));
    }

   private:
    static std::string number(double value) { return (std::ostringstream() << value).str(); }
    FakeInputEvents& owner_;
  };

  std::unique_ptr<InputEvent> make(std::string line, std::function<void()> also = nullptr) {
    if (eventsLeft && (*eventsLeft)-- <= 0) return nullptr;
    return std::make_unique<Event>(*this, std::move(line), std::move(also));
  }
};

class FakePrivacyPermissions final : public PrivacyPermissions {
 public:
  bool screenCapture = true;
  bool input = true;
  int prompts = 0;

  bool isScreenCaptureAllowed() const override { return screenCapture; }
  bool isTrustedForInput() const override { return input; }
  void promptForInputTrust() override { ++prompts; }
};

}  // namespace kestrune
