#include "platform/linux/x11/X11Connection.h"

#include <array>

namespace kestrune::linux_platform {

namespace {

std::string connectFailure(const std::string& displayName, int code) {
  // Nothing in this program changes its environment.
  const char* fromEnvironment = std::getenv("DISPLAY");  // NOLINT(concurrency-mt-unsafe)
  std::string name = displayName;
  if (name.empty() && fromEnvironment != nullptr) name = fromEnvironment;
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

}  // namespace

std::unique_ptr<X11Connection> X11Connection::open(const std::string& displayName) {
  int screenNumber = 0;
  xcb_connection_t* connection =
      xcb_connect(displayName.empty() ? nullptr : displayName.c_str(), &screenNumber);
  if (const int code = xcb_connection_has_error(connection); code != 0) {
    xcb_disconnect(connection);
    throw X11Error(connectFailure(displayName, code));
  }
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  while (screenNumber > 0 && screens.rem > 0) {
    xcb_screen_next(&screens);
    --screenNumber;
  }
  if (screens.rem == 0) {
    xcb_disconnect(connection);
    throw X11Error(connectFailure(displayName, XCB_CONN_CLOSED_INVALID_SCREEN));
  }
  return std::unique_ptr<X11Connection>(new X11Connection(connection, screens.data));
}

X11Connection::~X11Connection() {
  xcb_disconnect(connection_);
}

std::optional<X11Connection::Extension> X11Connection::extension(xcb_extension_t& id) const {
  const xcb_query_extension_reply_t* reply = xcb_get_extension_data(connection_, &id);
  if (reply == nullptr || reply->present == 0) return std::nullopt;
  return Extension{reply->major_opcode, reply->first_event, reply->first_error};
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
