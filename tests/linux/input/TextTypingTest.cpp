#include <gtest/gtest.h>
#include <unistd.h>

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

std::string utf8(char32_t point) {
  if (point < 0x80) return {static_cast<char>(point)};
  std::string bytes;
  unsigned mark = 0x80;      // of the first byte
  unsigned tooLarge = 0x40;  // for the first byte
  do {
    bytes.insert(bytes.begin(), static_cast<char>(0x80 | (point & 0x3F)));
    point >>= 6;
    tooLarge >>= 1;
    mark = mark >> 1 | 0x80;
  } while (point >= tooLarge);
  return static_cast<char>(mark | point) + bytes;
}

/// As the service sends it: in chunks of few units that cut no pair.
void typeInChunks(InputEvents& events, std::string_view text) {
  std::u16string chunk;
  for (const auto cluster : graphemeClusters(text)) {
    const auto units = utf16(cluster);
    if (!chunk.empty() && chunk.size() + units.size() > 20) {
      typeText(events, chunk);
      chunk.clear();
    }
    chunk += units;
  }
  typeText(events, chunk);
}

/// Random signs of several scripts, many of them on no keyboard.
std::string randomText(std::size_t count, std::uint32_t seed) {
  constexpr std::array<char32_t, 20> kScripts{0x21,   0x7E,   0xA1,   0x17F,  0x391,   0x3A1,  0x410,
                                              0x44F,  0x5D0,  0x5EA,  0x905,  0x939,   0x3041, 0x3096,
                                              0x4E00, 0x9FA5, 0xAC00, 0xD7A3, 0x1F300, 0x1F5FF};
  std::mt19937 random(seed);
  std::string text;
  for (std::size_t index = 0; index < count; ++index) {
    const std::size_t script = random() % (kScripts.size() / 2) * 2;
    const char32_t first = kScripts.at(script);
    text += utf8(first + static_cast<char32_t>(random() % (kScripts.at(script + 1) - first + 1)));
  }
  return text;
}

class TextTypingTest : public ::testing::Test {
 protected:
  /// Types into a terminal; what came of it.
  std::string typed(const std::string& text) {
    const Terminal terminal(server);
    XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
    typeInChunks(events, text);
    // As long as something comes: a loss ends the wait early enough.
    eventually([&] { return terminal.typed().size() >= text.size() / 2; });
    return terminal.typedLike(text);
  }

  XServer server{800, 600};
  KeyboardView keyboard{server};
};

TEST_F(TextTypingTest, SameTextWhateverTheLayout) {
  for (const auto* layout : {"us", "de", "fr", "ru", "us,ru -option grp:caps_toggle"}) {
    SCOPED_TRACE(layout);
    ASSERT_EQ(server.run(std::string("setxkbmap -layout ") + layout), 0);
    if (std::string_view(layout).starts_with("us,ru")) keyboard.press(kCapsLock);  // in its second group
    EXPECT_EQ(typed(kGreeting), kGreeting);
  }
}

TEST_F(TextTypingTest, HeldAndLockedModifiersDoNotSpoilTheTextAndAreBackAfterwards) {
  keyboard.press(kCapsLock);
  keyboard.key(kLeftShift, true);
  const unsigned before = keyboard.state();
  EXPECT_EQ(before, unsigned{XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_LOCK});
  const std::string text = "aA1! \u00E9\u00C9 \u65E5";
  EXPECT_EQ(typed(text), text);
  EXPECT_TRUE(eventually([&] { return keyboard.state() == before; }));
}

TEST_F(TextTypingTest, LineEndsAndTabsAreKeysAndOtherControlsAreNothing) {
  const Terminal terminal(server);
  XTestInputEvents events(std::make_shared<X11Server>(server.displayName()));
  typeInChunks(events, "a\nb\r\nc\td\x01\x7F.");
  EXPECT_EQ(terminal.typedLike("a\rb\rc\td."), "a\rb\rc\td.");
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
