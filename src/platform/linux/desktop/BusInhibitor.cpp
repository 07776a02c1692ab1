#include "platform/linux/desktop/BusInhibitor.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kestrune::linux_platform {
namespace {

constexpr const char* kApplicationName = "Kestrune";
/// Answers are waited for up to a deadline of our own, which counts the time to connect as well.
constexpr std::uint64_t kNoTimeout = UINT64_MAX;

std::string describe(int negativeError) {
  return std::generic_category().message(-negativeError);
}

}  // namespace

BusInhibitor::BusInhibitor(Settings settings, Service service)
    : settings_(std::move(settings)), service_(service) {}

BusInhibitor::~BusInhibitor() = default;

void BusInhibitor::hold(const std::string& reason) {
  if (state_ != State::off) return;
  reason_ = reason;
  ask(std::chrono::steady_clock::now());
}

void BusInhibitor::release() {
  if (state_ == State::off) return;
  close();
  state_ = State::off;
}

void BusInhibitor::advance(SteadyTime now) {
  if (state_ == State::off) return;
  if (bus_) {
    int result = 0;
    do {
      result = sd_bus_process(bus_.get(), nullptr);
    } while (result > 0);
    if (result < 0) {
      close();
      fail(std::string(service_.name) + " cannot be reached: " + describe(result), now);
    }
  }
  if (auto why = std::exchange(refusal_, {})) {
    giveBack();
    fail(std::move(*why), now);
  }
  if (std::exchange(serviceCameUp_, false) && state_ != State::asking) ask(now);
  if (state_ == State::asking && now >= deadline_) {
    close();  // a late grant goes down with the connection
    fail(std::string(service_.name) + " does not answer", now);
  }
  if (state_ == State::failed && now >= deadline_) ask(now);
}

int BusInhibitor::descriptor() const {
  return bus_ ? sd_bus_get_fd(bus_.get()) : -1;
}

int BusInhibitor::events() const {
  return bus_ ? sd_bus_get_events(bus_.get()) : 0;
}

std::optional<SteadyTime> BusInhibitor::deadline() const {
  if (state_ != State::asking && state_ != State::failed) return {};
  return deadline_;
}

void BusInhibitor::ask(SteadyTime now) {
  state_ = State::asking;
  deadline_ = now + settings_.answerTimeout;
  int result = bus_ ? 0 : connect();
  if (result >= 0) result = request();
  if (result >= 0) return;
  close();
  fail(std::string(service_.name) + " cannot be reached: " + describe(result), now);
}

int BusInhibitor::connect() {
  sd_bus* bus = nullptr;
  int result = 0;
  if (settings_.address.empty()) {
    result = service_.openBus(&bus);
    bus_.reset(bus);
  } else {
    result = sd_bus_new(&bus);
    bus_.reset(bus);
    if (result >= 0) result = sd_bus_set_address(bus, settings_.address.c_str());
    if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
    if (result >= 0) result = sd_bus_start(bus);
  }
  if (result < 0) return result;
  const std::string match = std::string(
                                "type='signal',sender='org.freedesktop.DBus',"
                                "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
                            service_.name + "'";
  return sd_bus_add_match_async(bus, nullptr, match.c_str(), &onOwnerChange, nullptr, this);
}

BusMessage BusInhibitor::makeCall(const char* method) const {
  sd_bus_message* made = nullptr;
  sd_bus_message_new_method_call(bus_.get(), &made, service_.name, service_.path, service_.interface, method);
  return BusMessage(made);
}

int BusInhibitor::request() {
  const BusMessage call = makeCall("Inhibit");
  if (!call) return -ENOMEM;
  const int result = addArguments(call.get(), reason_);
  if (result < 0) return result;
  return sd_bus_call_async(bus_.get(), nullptr, call.get(), &onAnswer, this, kNoTimeout);
}

void BusInhibitor::fail(std::string why, SteadyTime now) {
  state_ = State::failed;
  failure_ = std::move(why);
  deadline_ = now + settings_.retryDelay;
}

void BusInhibitor::close() {
  giveBack();
  bus_.reset();
  refusal_.reset();
  serviceCameUp_ = false;
}

int BusInhibitor::onAnswer(sd_bus_message* answer, void* context, sd_bus_error* /*error*/) {
  auto& self = *static_cast<BusInhibitor*>(context);
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    self.refusal_ = error->message ? error->message : error->name;
  } else if (const int result = self.take(answer); result < 0) {
    self.refusal_ = std::string(self.service_.name) + " gave no proper answer: " + describe(result);
  } else {
    self.state_ = State::held;
  }
  return 0;
}

int BusInhibitor::onOwnerChange(sd_bus_message* signal, void* context, sd_bus_error* /*error*/) {
  auto& self = *static_cast<BusInhibitor*>(context);
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sd_bus_message_read(signal, "sss", &name, &before, &after) < 0) return 0;
  // While asking, the request itself may have started the service, and the bus answers for one that ends.
  if (self.state_ == State::asking) return 0;
  self.serviceCameUp_ = *after != '\0';
  if (!self.serviceCameUp_) self.refusal_ = std::string(self.service_.name) + " has ended";
  return 0;
}

IdleInhibitor::IdleInhibitor(Settings settings)
    : BusInhibitor(std::move(settings), {.name = "org.freedesktop.login1",
                                         .path = "/org/freedesktop/login1",
                                         .interface = "org.freedesktop.login1.Manager",
                                         .openBus = &sd_bus_open_system}) {}

IdleInhibitor::~IdleInhibitor() = default;

int IdleInhibitor::addArguments(sd_bus_message* request, const std::string& reason) {
  return sd_bus_message_append(request, "ssss", "idle", kApplicationName, reason.c_str(), "block");
}

int IdleInhibitor::take(sd_bus_message* answer) {
  int descriptor = -1;  // the message's own
  if (const int result = sd_bus_message_read(answer, "h", &descriptor); result < 0) return result;
  UniqueDescriptor lock(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!lock) return -errno;
  lock_ = std::move(lock);
  return 0;
}

void IdleInhibitor::giveBack() {
  lock_.reset();
}

ScreenSaverInhibitor::ScreenSaverInhibitor(Settings settings)
    : BusInhibitor(std::move(settings), {.name = "org.freedesktop.ScreenSaver",
                                         .path = "/org/freedesktop/ScreenSaver",
                                         .interface = "org.freedesktop.ScreenSaver",
                                         .openBus = &sd_bus_open_user}) {}

ScreenSaverInhibitor::~ScreenSaverInhibitor() = default;

int ScreenSaverInhibitor::addArguments(sd_bus_message* request, const std::string& reason) {
  return sd_bus_message_append(request, "ss", kApplicationName, reason.c_str());
}

int ScreenSaverInhibitor::take(sd_bus_message* answer) {
  std::uint32_t cookie = 0;
  if (const int result = sd_bus_message_read(answer, "u", &cookie); result < 0) return result;
  cookie_ = cookie;
  return 0;
}

/// Closing the connection is enough for a service that keeps to the rules; not all do.
void ScreenSaverInhibitor::giveBack() {
  const auto cookie = std::exchange(cookie_, {});
  if (!cookie) return;
  const BusMessage call = makeCall("UnInhibit");
  if (!call || sd_bus_message_set_expect_reply(call.get(), 0) < 0 ||
      sd_bus_message_set_auto_start(call.get(), 0) < 0 ||
      sd_bus_message_append(call.get(), "u", *cookie) < 0) {
    return;
  }
  sd_bus_send(bus(), call.get(), nullptr);
}

}  // namespace kestrune::linux_platform
