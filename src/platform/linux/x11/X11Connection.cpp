#include "platform/linux/x11/X11Connection.h"

#include <sys/socket.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <system_error>
#include <thread>
#include <utility>

#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {

namespace {

std::string nameOf(const std::string& displayName) {
  // Nothing in this program changes its environment.
  const char* fromEnvironment = std::getenv("DISPLAY");  // NOLINT(concurrency-mt-unsafe)
  if (displayName.empty() && fromEnvironment != nullptr) return fromEnvironment;
  return displayName;
}

std::string connectFailure(const std::string& name, int code) {
  if (name.empty()) return "No X display is set (DISPLAY is empty).";
  switch (code) {
    case XCB_CONN_CLOSED_PARSE_ERR:
      return "\"" + name + "\" is not the name of an X display.";
    case XCB_CONN_CLOSED_INVALID_SCREEN:
      return "The X display " + name + " does not have that screen.";
    default:
      return "The X display " + name + " cannot be reached.";
  }
}

xcb_connection_t* connectTo(X11Address& address, int& screen) {
  const char* name = address.name.empty() ? nullptr : address.name.c_str();
  if (address.cookie.empty()) return xcb_connect(name, &screen);
  std::string method = "MIT-MAGIC-COOKIE-1";
  xcb_auth_info_t key{static_cast<int>(method.size()), method.data(), static_cast<int>(address.cookie.size()),
                      address.cookie.data()};
  return xcb_connect_to_display_with_auth_info(name, &key, &screen);
}

std::string noAnswer(const std::string& name) {
  return "The X display " + name + " does not answer.";
}

}  // namespace

void X11Interrupt::interrupt() {
  const std::lock_guard guard(lock_);
  isInterrupted_ = true;
  for (const int descriptor : descriptors_) shutdown(descriptor, SHUT_RDWR);
  changed_.notify_all();
}

bool X11Interrupt::isInterrupted() const {
  const std::lock_guard guard(lock_);
  return isInterrupted_;
}

/// xcb_connect() with a limit. It waits for the server on a thread of its own, which closes the connection
/// itself if its waiter has given up.
class X11Connection::Attempt {
 public:
  /// Null if there was no answer in time. Throws an X11Error if it may not wait.
  static xcb_connection_t* connect(const X11Address& address, const std::shared_ptr<X11Interrupt>& interrupt,
                                   int& screen) {
    auto attempt = std::make_shared<Attempt>();
    attempt->interrupt_ = interrupt;
    // Attempts abandoned on a hung server; each ends when the server answers or dies.
    constexpr int kMostAttempts = 8;
    static std::atomic<int> attempts{0};
    if (attempts.fetch_add(1) >= kMostAttempts) {
      --attempts;
      return nullptr;
    }
    try {
      std::thread([attempt, address = address]() mutable {
        nameThread("x11-connect");
        attempt->run(address);
        --attempts;
      }).detach();
    } catch (const std::system_error& failure) {
      --attempts;
      throw X11Error(std::string("There is no thread left to connect to the X display: ") + failure.what());
    }
    return attempt->take(screen);
  }

 private:
  void run(X11Address& address) {
    // One at a time: libXau keeps the name of the authority file in a buffer of its own.
    static std::mutex oneAtATime;
    const std::lock_guard turn(oneAtATime);
    {
      const std::lock_guard guard(interrupt_->lock_);
      if (isAbandoned_) return;
    }
    int screen = 0;
    xcb_connection_t* connection = connectTo(address, screen);
    {
      const std::lock_guard guard(interrupt_->lock_);
      if (!isAbandoned_) {
        connection_ = std::exchange(connection, nullptr);
        screen_ = screen;
      }
      interrupt_->changed_.notify_all();
    }
    if (connection != nullptr) xcb_disconnect(connection);
  }

  xcb_connection_t* take(int& screen) {
    std::unique_lock guard(interrupt_->lock_);
    interrupt_->changed_.wait_for(guard, X11Watchdog::kAnswerLimit,
                                  [this] { return connection_ != nullptr || interrupt_->isInterrupted_; });
    isAbandoned_ = true;
    screen = screen_;
    return std::exchange(connection_, nullptr);
  }

  std::shared_ptr<X11Interrupt> interrupt_;  // its lock guards the rest
  xcb_connection_t* connection_ = nullptr;
  int screen_ = 0;
  bool isAbandoned_ = false;
};

std::unique_ptr<X11Connection> X11Connection::open(const X11Address& address,
                                                   std::shared_ptr<X11Interrupt> interrupt) {
  if (!interrupt) interrupt = std::make_shared<X11Interrupt>();
  const std::string name = nameOf(address.name);
  int screenNumber = 0;
  xcb_connection_t* connection = Attempt::connect({name, address.cookie}, interrupt, screenNumber);
  if (connection == nullptr) throw X11Error(noAnswer(name));
  if (const int code = xcb_connection_has_error(connection); code != 0) {
    xcb_disconnect(connection);
    throw X11Error(connectFailure(name, code));
  }
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  while (screenNumber > 0 && screens.rem > 0) {
    xcb_screen_next(&screens);
    --screenNumber;
  }
  if (screens.rem == 0) {
    xcb_disconnect(connection);
    throw X11Error(connectFailure(name, XCB_CONN_CLOSED_INVALID_SCREEN));
  }
  std::unique_ptr<X11Connection> opened(
      new X11Connection(connection, screens.data, name, std::move(interrupt)));
  // A window manager may grab the server until a button is released that is released over this connection,
  // and what it draws meanwhile is to be seen.
  if (opened->extension(xcb_test_id)) {
    xcb_test_grab_control(*opened, 1);
    opened->flush();
  }
  if (opened->isBroken()) throw X11Error(noAnswer(name));
  return opened;
}

X11Connection::X11Connection(xcb_connection_t* connection, xcb_screen_t* screen, std::string name,
                             std::shared_ptr<X11Interrupt> interrupt)
    : connection_(connection),
      screen_(screen),
      name_(std::move(name)),
      watchdog_(X11Watchdog::shared()),
      line_(watchdog_->add(xcb_get_file_descriptor(connection))),
      interrupt_(std::move(interrupt)) {
  const std::lock_guard guard(interrupt_->lock_);
  interrupt_->descriptors_.push_back(descriptor());
  if (interrupt_->isInterrupted_) shutdown(descriptor(), SHUT_RDWR);
}

X11Connection::~X11Connection() {
  watchdog_->remove(line_);
  {
    const std::lock_guard guard(interrupt_->lock_);
    std::erase(interrupt_->descriptors_, descriptor());
  }
  xcb_disconnect(connection_);
}

void X11Connection::failLost() const {
  if (isHung()) throw X11Error("The X display " + name_ + " has stopped answering.");
  throw X11Error("The connection to the X display was lost.");
}

std::optional<X11Connection::Extension> X11Connection::extension(xcb_extension_t& id) const {
  const LimitedWait wait(*this);
  const xcb_query_extension_reply_t* reply = xcb_get_extension_data(connection_, &id);
  if (reply == nullptr || reply->present == 0) return std::nullopt;
  return Extension{reply->major_opcode, reply->first_event};
}

void X11Connection::flush() const {
  const LimitedWait wait(*this);
  xcb_flush(connection_);
}

XcbOwned<xcb_generic_error_t> X11Connection::check(xcb_void_cookie_t request) const {
  const LimitedWait wait(*this);
  return XcbOwned<xcb_generic_error_t>(xcb_request_check(connection_, request));
}

bool X11Connection::roundTrip() const {
  return waitForReply(*this, xcb_get_input_focus_reply, xcb_get_input_focus(connection_)) != nullptr;
}

std::string describe(const xcb_generic_error_t* error) {
  if (error == nullptr) return "no answer";
  static constexpr std::array<const char*, 18> kNames = {
      "Success",   "BadRequest", "BadValue",    "BadWindow",   "BadPixmap", "BadAtom",
      "BadCursor", "BadFont",    "BadMatch",    "BadDrawable", "BadAccess", "BadAlloc",
      "BadColor",  "BadGC",      "BadIDChoice", "BadName",     "BadLength", "BadImplementation"};
  const std::string name = error->error_code < kNames.size() ? kNames[error->error_code] : "extension error";
  return name + " (" + std::to_string(error->error_code) + "), request " + std::to_string(error->major_code) +
         "." + std::to_string(error->minor_code);
}

}  // namespace kestrune::linux_platform
