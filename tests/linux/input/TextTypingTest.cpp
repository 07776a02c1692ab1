#include <gtest/gtest.h>
#include <unistd.h>
#include <xkbcommon/xkbcommon.h>

#include <array>
#include <memory>
#include <random>

#include "linux/input/InputLab.h"
#include "platform/linux/input/XTestInputEvents.h"
#include "platform/support/Encoding.h"

namespace kestrune::linux_platform {
namespace {

using namespace kestrune::testing;

constexpr xcb_keycode_t kCapsLock = 66;  // on the evdev keyboards of the test servers
constexpr xcb_keycode_t kLeftShift = 50;
constexpr xcb_keycode_t kSpace = 65;
const std::string kGreeting =
    "Gr\u00FC\u00DFe \U0001F44B \u65E5\u672C\u8A9E, \u041F\u0440\u0438\u0432\u0435\u0442! e\u0301 "
    "#@[]{}~^`\"'";

/// As the service sends it: in pieces of few units that cut no cluster.
void typeInChunks(InputEvents& events, std::string_view text) {
  std::u16string chunk;
  for (const auto cluster : graphemeClusters(text)) {
    chunk += utf16(cluster);
    if (chunk.size() >= 15) typeText(events, std::exchange(chunk, {}));
  }
  typeText(events, chunk);
}

/// Random signs of several scripts, many of them on no keyboard.
std::string randomText(std::size_t count, std::uint32_t seed) {
  // The first and the last of each.
  constexpr std::u32string_view kScripts =
      U"!~"
      U"\u00A1\u017F\u0391\u03A1\u0410\u044F\u05D0\u05EA\u0905\u0939\u3041\u3096\u4E00\u9FA5\uAC00\uD7A3"
      U"\U0001F300\U0001F5FF";
  std::mt19937 random(seed);
  std::string text;
  for (std::size_t index = 0; index < count; ++index) {
    const std::size_t script = random() % (kScripts.size() / 2) * 2;
    const char32_t first = kScripts[script];
    const char32_t point = first + static_cast<char32_t>(random() % (kScripts[script + 1] - first + 1));
    std::array<char, 8> sign{};
    xkb_keysym_to_utf8(point < 0x100 ? point : 0x1000000 + point, sign.data(), sign.size());
    text += sign.data();
  }
  return text;
}

class TextTypingTest : public ::testing::Test {
 protected:
  /// Types into a terminal; what came of it, until it is as much as `expected`.
  std::string typed(const std::string& text, const std::string& expected) {
    const Terminal terminal(server);
    XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
    typeInChunks(events, text);
    return terminal.typedLike(expected);
  }
  std::string typed(const std::string& text) { return typed(text, text); }

  void capsLock() const {
    keyboard.key(kCapsLock, true);
    keyboard.key(kCapsLock, false);
  }

  XServer server{800, 600};
  KeyboardView keyboard{server};
};

TEST_F(TextTypingTest, SameTextWhateverTheLayout) {
  for (const auto* layout : {"us", "de", "fr", "ru", "us,ru -option grp:caps_toggle"}) {
    SCOPED_TRACE(layout);
    ASSERT_EQ(server.run(std::string("setxkbmap -layout ") + layout), 0);
    if (std::string_view(layout).starts_with("us,ru")) capsLock();  // in its second group
    EXPECT_EQ(typed(kGreeting), kGreeting);
  }
}

TEST_F(TextTypingTest, HeldAndLockedModifiersDoNotSpoilTheTextAndAreBackAfterwards) {
  capsLock();
  keyboard.key(kLeftShift, true);
  const unsigned before = keyboard.state();
  EXPECT_EQ(before, unsigned{XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_LOCK});
  const std::string text = "aA1! \u00E9\u00C9 \u65E5";
  EXPECT_EQ(typed(text), text);
  EXPECT_TRUE(eventually([&] { return keyboard.state() == before; }));
}

TEST_F(TextTypingTest, LineEndsAndTabsAreKeysAndOtherControlsAreNothing) {
  EXPECT_EQ(typed("a\nb\r\nc\td\x01\x7F.", "a\rb\rc\td."), "a\rb\rc\td.");
}

TEST_F(TextTypingTest, ManyRandomSignsArriveWithoutALoss) {
  const std::string text = randomText(600, 4711);
  EXPECT_EQ(typed(text), text);
}

TEST_F(TextTypingTest, LettersOfTheLayoutInUseBorrowNoKeyCode) {
  ASSERT_EQ(server.run("setxkbmap ru"), 0);
  const auto before = keyboard.mapping();
  const Terminal terminal(server);
  XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
  const std::string text = "\u041F\u0440\u0438\u0432\u0435\u0442";
  typeInChunks(events, text);
  EXPECT_EQ(terminal.typedLike(text), text);
  EXPECT_EQ(keyboard.mapping(), before);
}

TEST_F(TextTypingTest, BorrowedKeyCodesAreGivenBackAtTheEnd) {
  const auto before = keyboard.mapping();
  // Also in the middle of a long text; the destructor has returned only when they are back.
  for (std::uint32_t seed = 1; seed < 6; ++seed) {
    {
      XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
      typeInChunks(events, randomText(seed == 1 ? 20 : 200, seed));
      EXPECT_TRUE(eventually([&] { return keyboard.mapping() != before; }));
      // When typing has paused, too.
      EXPECT_TRUE(seed > 1 || eventually([&] { return keyboard.mapping() == before; }));
    }
    EXPECT_EQ(keyboard.mapping(), before);
  }
}

TEST(TextTypingCrashTest, WhatAProcessThatDiedHeldAndBorrowedIsReleasedAndGivenBack) {
  const XServer server(800, 600);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();  // while this process has no other thread
  if (child == 0) {
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) _exit(1);
    XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
    typeText(events, u"\u4E2D\u6587");
    const auto source = events.createSource();
    source->mouseEvent(MouseEventType::rightDown, {5, 5}, MouseButton::right)->post();
    source->mouseEvent(MouseEventType::rightUp, {5, 5}, MouseButton::right)->post();
    source->keyboardEvent(49, true)->post();
    source->mouseEvent(MouseEventType::leftDown, {5, 5}, MouseButton::left)->post();
    const KeyboardView view(server);
    eventually([&] { return (view.state() & XCB_BUTTON_MASK_1) != 0; });
    raise(SIGKILL);
  }
  const KeyboardView keyboard(server);
  const auto before = keyboard.mapping();
  keyboard.key(kLeftShift, true);  // of somebody else
  ASSERT_EQ(write(ready[1], "", 1), 1);
  waitpid(child, nullptr, 0);
  EXPECT_NE(keyboard.mapping(), before);
  EXPECT_EQ(keyboard.state(), unsigned{XCB_BUTTON_MASK_1} | unsigned{XCB_MOD_MASK_SHIFT});
  EXPECT_TRUE(keyboard.isHeld(kSpace));
  const XTestInputEvents next(std::make_shared<X11Server>(server.displayName()));
  EXPECT_TRUE(eventually([&] { return keyboard.mapping() == before; }));
  EXPECT_EQ(keyboard.state(), unsigned{XCB_MOD_MASK_SHIFT});
  EXPECT_FALSE(keyboard.isHeld(kSpace));
}

}  // namespace
}  // namespace kestrune::linux_platform
