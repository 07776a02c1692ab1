#pragma once

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::testing {

/// logind and a screen saver as far as inhibitions go, on a bus of the test's own, until its end. A grant
/// ends as with the real ones: by the descriptor, or by the cookie or the end of the connection.
class PowerServices {
 public:
  enum class Manner { answers, refuses, isSilent, answersLate };

  struct Counts {
    int idleRequests = 0, saverRequests = 0, idleHeld = 0, saverHeld = 0, uninhibited = 0;
    std::vector<std::string> idleArguments, saverArguments;  // of the latest request
  };

  explicit PowerServices(const std::string& address, Manner manner = Manner::answers) : manner_(manner) {
    connect(address);
    thread_ = std::thread([this] { serve(); });
  }
  ~PowerServices() {
    isOver_ = true;
    thread_.join();
  }
  PowerServices(const PowerServices&) = delete;

  void setManner(Manner manner) { manner_ = manner; }
  Counts counts() const {
    const std::lock_guard guard(lock_);
    return counts_;
  }
  bool isHeld(int idle, int saver) const {
    const Counts now = counts();
    return now.idleHeld == idle && now.saverHeld == saver;
  }

 private:
  void connect(const std::string& address) {
    check(sd_bus_new(&bus_));
    check(sd_bus_set_address(bus_, address.c_str()));
    check(sd_bus_set_bus_client(bus_, 1));
    check(sd_bus_negotiate_fds(bus_, 1));
    check(sd_bus_start(bus_));
    for (const auto* path : {"/org/freedesktop/login1", "/org/freedesktop/ScreenSaver"}) {
      check(sd_bus_add_object(bus_, nullptr, path, &onCall, this));
    }
    check(sd_bus_match_signal(bus_, nullptr, "org.freedesktop.DBus", nullptr, "org.freedesktop.DBus",
                              "NameOwnerChanged", &onOwnerChange, this));
    check(sd_bus_request_name(bus_, "org.freedesktop.login1", 0));
    check(sd_bus_request_name(bus_, "org.freedesktop.ScreenSaver", 0));
  }

  void serve() {
    while (!isOver_) {
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
      countGrants();
      sd_bus_wait(bus_, 5'000);
    }
    sd_bus_flush_close_unref(bus_);
  }

  static void check(int result) {
    if (result < 0) throw std::runtime_error("fake services: " + std::to_string(result));
  }

  void countGrants() {
    std::erase_if(locks_, [](const auto& lock) {
      pollfd end{lock.get(), 0, 0};
      return poll(&end, 1, 0) > 0;  // the other end is closed
    });
    const std::lock_guard guard(lock_);
    counts_.idleHeld = static_cast<int>(locks_.size());
    counts_.saverHeld = static_cast<int>(cookies_.size());
  }

  static std::vector<std::string> arguments(sd_bus_message* call) {
    std::vector<std::string> texts;
    for (const char* text = nullptr; sd_bus_message_read(call, "s", &text) > 0;) texts.emplace_back(text);
    return texts;
  }

  static int onCall(sd_bus_message* call, void* context, sd_bus_error* error) {
    if (sd_bus_message_is_method_call(call, nullptr, "UnInhibit") > 0)
      return onUninhibit(call, context, error);
    return sd_bus_message_is_method_call(call, nullptr, "Inhibit") > 0 ? onInhibit(call, context, error) : 0;
  }

  static int onInhibit(sd_bus_message* call, void* context, sd_bus_error* /*error*/) {
    auto& self = *static_cast<PowerServices*>(context);
    const bool isIdle = sd_bus_message_has_signature(call, "ssss") > 0;
    {
      const std::lock_guard guard(self.lock_);
      ++(isIdle ? self.counts_.idleRequests : self.counts_.saverRequests);
      (isIdle ? self.counts_.idleArguments : self.counts_.saverArguments) = arguments(call);
    }
    if (self.manner_ == Manner::isSilent) return 1;
    if (self.manner_ == Manner::refuses) {
      return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Not for you");
    }
    if (self.manner_ == Manner::answersLate) poll(nullptr, 0, 200);
    if (!isIdle) {
      self.cookies_.emplace(++self.lastCookie_, sd_bus_message_get_sender(call));
      return sd_bus_reply_method_return(call, "u", self.lastCookie_);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -errno;
    self.locks_.emplace_back(ends[0]);
    const linux_platform::UniqueDescriptor given(ends[1]);
    return sd_bus_reply_method_return(call, "h", given.get());
  }

  static int onUninhibit(sd_bus_message* call, void* context, sd_bus_error* /*error*/) {
    auto& self = *static_cast<PowerServices*>(context);
    std::uint32_t cookie = 0;
    sd_bus_message_read(call, "u", &cookie);
    const auto count = self.cookies_.erase({cookie, sd_bus_message_get_sender(call)});
    const std::lock_guard guard(self.lock_);
    self.counts_.uninhibited += static_cast<int>(count);
    return sd_bus_reply_method_return(call, "");
  }

  static int onOwnerChange(sd_bus_message* signal, void* context, sd_bus_error* /*error*/) {
    auto& self = *static_cast<PowerServices*>(context);
    const auto names = arguments(signal);
    if (names[2].empty()) {
      std::erase_if(self.cookies_, [&](const auto& held) { return held.second == names[0]; });
    }
    return 0;
  }

  std::atomic<Manner> manner_;
  std::atomic<bool> isOver_{false};
  // The thread's own:
  sd_bus* bus_ = nullptr;
  std::vector<linux_platform::UniqueDescriptor> locks_;      // the ends of pipes whose others were given away
  std::set<std::pair<std::uint32_t, std::string>> cookies_;  // and their owners
  std::uint32_t lastCookie_ = 1000;

  mutable std::mutex lock_;  // guards counts_
  Counts counts_;
  std::thread thread_;
};

}  // namespace kestrune::testing
