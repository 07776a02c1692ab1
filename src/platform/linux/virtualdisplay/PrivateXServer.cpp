#include "platform/linux/virtualdisplay/PrivateXServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/linux/files/UserDirectories.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr const char* kServer = "Xvfb";
constexpr const char* kWindowManager = "openbox";
constexpr std::size_t kMostMessages = 4096;
constexpr std::size_t kLongestNumber = 16;
constexpr std::uint32_t kBackground = 0x303030;  // 0xRRGGBB

struct Pipe {
  UniqueDescriptor output;
  UniqueDescriptor input;
};

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  Pipe made{UniqueDescriptor(ends[0]), UniqueDescriptor(ends[1])};
  // The server's end may block: it must not lose what it has to say.
  fcntl(ends[1], F_SETFL, 0);
  return made;
}

std::string program(const char* name) {
  if (const auto found = findProgram(name, programDirectories())) return found->string();
  throw std::system_error(ENOENT, std::generic_category(), name);
}

/// Nothing of the user's settings plays a part.
std::vector<std::string> plainEnvironment(const ServerFiles& files) {
  const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nothing changes the environment
  const std::string home = files.directory().string();
  return {std::string("PATH=") + (path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin"),
          "LANG=C.UTF-8",
          "HOME=" + home,
          "XDG_CONFIG_HOME=" + home,
          "XDG_CACHE_HOME=" + home,
          "XDG_DATA_HOME=" + home};
}

void append(std::string& text, int descriptor) {
  std::array<char, 1024> buffer{};
  for (;;) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count <= 0) return;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

/// How many connections to a listening Unix socket, or to its abstract twin, are open (proc(5), net/unix: the
/// accepted ends have the listener's name, and state 3 is that of a connection).
int connectionsOf(const std::string& socket) {
  std::ifstream table("/proc/net/unix");
  int count = 0;
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string number;
    std::string references;
    std::string protocol;
    std::string flags;
    std::string type;
    std::string state;
    std::string inode;
    std::string name;
    words >> number >> references >> protocol >> flags >> type >> state >> inode >> name;
    if (state == "03" && (name == socket || name == "@" + socket)) ++count;
  }
  return count;
}

/// The socket of a server that was killed stays behind. One that somebody listens on is another server's.
void removeDeadSocket(const std::string& displayName) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/tmp/.X11-unix/X" + displayName.substr(1);
  if (path.size() >= sizeof address.sun_path) return;
  path.copy(address.sun_path, path.size());
  const UniqueDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno == ECONNREFUSED) {
    unlink(path.c_str());
  }
}

}  // namespace

bool PrivateXServer::isInstalled() {
  return findProgram(kServer, programDirectories()).has_value();
}

PrivateXServer::PrivateXServer(const Screen& screen) {
  Pipe number = makePipe();
  Pipe messages = makePipe();
  const std::string size =
      std::to_string(screen.width) + "x" + std::to_string(screen.height) + "x" + std::to_string(24);
  OwnedProcess::Setup setup;
  // It takes a free display number by itself. Its abstract socket stays (no "-nolisten local"): only by that
  // does a server see that a number is taken, and without it this one would take over another's socket. No
  // screen saver: nothing but the viewer looks at it.
  setup.command = {program(kServer),
                   "-screen",
                   "0",
                   size,
                   "-dpi",
                   std::to_string(screen.dotsPerInch),
                   "-displayfd",
                   std::to_string(OwnedProcess::kExtraDescriptor),
                   "-nolisten",
                   "tcp",
                   "-auth",
                   files_.authority().string(),
                   "-noreset",
                   "-s",
                   "0"};
  setup.environment = plainEnvironment(files_);
  setup.errorOutput = messages.input.get();
  setup.extra = number.input.get();
  server_.emplace(setup);
  numberOutput_ = std::move(number.output);
  messageOutput_ = std::move(messages.output);
}

PrivateXServer::~PrivateXServer() {
  windowManager_.reset();
  server_.reset();
  if (!address_.name.empty()) removeDeadSocket(address_.name);
}

bool PrivateXServer::waitUntilReady(const EventFd& stop) {
  const auto end = std::chrono::steady_clock::now() + kStartLimit;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left <= std::chrono::milliseconds::zero() || number_.size() > kLongestNumber) return false;
    const Wait outcome = wait(stop, left);
    if (outcome == Wait::over) return false;
    if (outcome == Wait::silent) continue;
    append(number_, numberOutput_.get());
    if (!number_.ends_with('\n')) continue;
    number_.pop_back();
    numberOutput_.reset();
    address_ = X11Address(":" + number_, files_.key());
    return true;
  }
}

void PrivateXServer::waitForEnd(const EventFd& stop) {
  while (wait(stop, std::chrono::milliseconds(-1)) != Wait::over) continue;
}

void PrivateXServer::waitForClients() {
  constexpr std::chrono::milliseconds kStep{20};
  const std::string socket = "/tmp/.X11-unix/X" + number_;
  for (auto waited = kStep; waited <= kClientLimit; waited += kStep) {
    const bool isManaged = windowManager_ && !windowManager_->hasEnded();
    if (connectionsOf(socket) <= (isManaged ? 1 : 0) || server_->hasEnded(kStep)) return;
  }
}

/// A negative limit is none.
PrivateXServer::Wait PrivateXServer::wait(const EventFd& stop, std::chrono::milliseconds limit) {
  std::array<pollfd, 4> sources{{{stop.fd(), POLLIN, 0},
                                 {server_->descriptor(), POLLIN, 0},
                                 {numberOutput_.get(), POLLIN, 0},
                                 {messageOutput_.get(), POLLIN, 0}}};
  poll(sources.data(), sources.size(), static_cast<int>(limit.count()));
  if (sources[3].revents != 0) readMessages();
  if (sources[0].revents != 0 || sources[1].revents != 0) return Wait::over;
  if (sources[3].revents == POLLHUP) messageOutput_.reset();
  // A server without a number is of no use.
  if (sources[2].revents == POLLHUP) return Wait::over;
  return sources[2].revents == 0 ? Wait::silent : Wait::ready;
}

void PrivateXServer::readMessages() {
  append(messages_, messageOutput_.get());
  if (messages_.size() > kMostMessages) messages_.erase(0, messages_.size() - kMostMessages);
}

void PrivateXServer::furnish() {
  const auto connection = X11Connection::open(address_);
  const xcb_font_t font = xcb_generate_id(*connection);
  const std::string name = "cursor";  // the font of pointers; 68 is the arrow, and 69 its mask
  xcb_open_font(*connection, font, static_cast<std::uint16_t>(name.size()), name.c_str());
  const xcb_cursor_t arrow = xcb_generate_id(*connection);
  constexpr std::uint16_t kFull = 0xFFFF;
  xcb_create_glyph_cursor(*connection, arrow, font, font, 68, 69, 0, 0, 0, kFull, kFull, kFull);
  const std::array<std::uint32_t, 2> values{kBackground, arrow};
  xcb_change_window_attributes(*connection, connection->root(), XCB_CW_BACK_PIXEL | XCB_CW_CURSOR,
                               values.data());
  xcb_clear_area(*connection, 0, connection->root(), 0, 0, 0, 0);
  if (!connection->roundTrip()) connection->failLost();
  startWindowManager();
  if (windowManager_) waitForWindowManager(*connection);
}

void PrivateXServer::startWindowManager() {
  try {
    OwnedProcess::Setup setup;
    setup.command = {program(kWindowManager), "--sm-disable", "--config-file",
                     files_.windowManager().string()};
    setup.environment = plainEnvironment(files_);
    for (auto& entry : environment()) setup.environment.push_back(std::move(entry));
    windowManager_.emplace(setup);
  } catch (const std::system_error& failure) {
    kLog.notice(std::string("The virtual display has no window manager: ") + failure.what());
  }
}

/// It loses windows that are mapped while it starts, so one of no use is mapped until it takes that.
void PrivateXServer::waitForWindowManager(const X11Connection& connection) {
  constexpr std::chrono::milliseconds kStep{10};
  const xcb_window_t probe = xcb_generate_id(connection);
  xcb_create_window(connection, XCB_COPY_FROM_PARENT, probe, connection.root(), 0, 0, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
  for (auto waited = kStep; waited <= kWindowManagerLimit; waited += kStep) {
    xcb_map_window(connection, probe);
    const auto tree = waitForReply(connection, xcb_query_tree_reply, xcb_query_tree(connection, probe));
    if (tree && tree->parent != connection.root()) break;
    if (!windowManager_->hasEnded(kStep)) continue;
    kLog.notice("The virtual display has no window manager: " + windowManager_->outcome());
    break;
  }
  xcb_destroy_window(connection, probe);
  connection.roundTrip();
}

std::vector<std::string> PrivateXServer::environment() const {
  // Programs that could would open their windows on the user's Wayland desktop instead.
  return {"DISPLAY=" + address_.name, "XAUTHORITY=" + files_.authority().string(),
          "WAYLAND_DISPLAY=", "XDG_SESSION_TYPE=x11"};
}

std::optional<std::string> PrivateXServer::failure() {
  if (!server_->hasEnded()) return std::nullopt;
  std::string text = server_->outcome();
  const auto fatal = messages_.find("Fatal server error:");
  if (fatal != std::string::npos) text += ", " + messages_.substr(fatal);
  return text;
}

}  // namespace kestrune::linux_platform
