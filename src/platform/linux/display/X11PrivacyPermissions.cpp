#include "platform/linux/display/X11PrivacyPermissions.h"

#include <string_view>

#include "runtime/Log.h"

namespace kestrune::linux_platform {

namespace {
constexpr Logger kLog("App");
constexpr std::string_view kTestExtension = "XTEST";
}  // namespace

X11PrivacyPermissions::X11PrivacyPermissions(std::string displayName)
    : displayName_(std::move(displayName)) {}

X11PrivacyPermissions::~X11PrivacyPermissions() = default;

template <class Question>
bool X11PrivacyPermissions::ask(Question question) const {
  const std::lock_guard guard(lock_);
  try {
    if (connection_) {
      const bool answer = question(*connection_);
      if (!connection_->isBroken()) return answer;
    }
    connection_ = X11Connection::open(displayName_);
    return question(*connection_);
  } catch (const X11Error&) {
    connection_.reset();
    return false;
  }
}

bool X11PrivacyPermissions::isScreenCaptureAllowed() const {
  return ask([](const X11Connection& connection) {
    constexpr std::uint32_t kAllPlanes = ~0U;
    const auto image = waitForReply(
        connection, xcb_get_image_reply,
        xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, connection.root(), 0, 0, 1, 1, kAllPlanes));
    return image != nullptr && xcb_get_image_data_length(image.get()) > 0;
  });
}

bool X11PrivacyPermissions::isTrustedForInput() const {
  return ask([](const X11Connection& connection) {
    const auto reply =
        waitForReply(connection, xcb_query_extension_reply,
                     xcb_query_extension(connection, static_cast<std::uint16_t>(kTestExtension.size()),
                                         kTestExtension.data()));
    return reply != nullptr && reply->present != 0;
  });
}

void X11PrivacyPermissions::promptForInputTrust() {
  if (isTrustedForInput()) return;
  kLog.notice("Input cannot be posted: the X display cannot be reached or has no XTEST extension.");
}

}  // namespace kestrune::linux_platform
