#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

using SteadyTime = std::chrono::steady_clock::time_point;

struct UnreferenceMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, UnreferenceMessage>;

/// An inhibition that a service on a message bus grants, over a connection of its own: closing that ends
/// what was granted on it, and so does the end of this process. It never waits; its owner does. A service
/// that refuses, says nothing, ends or comes up late is asked again, at its return or after a while. Confined
/// to one thread.
class BusInhibitor {
 public:
  enum class State { off, asking, held, failed };
  struct Settings {
    /// Empty for the standard bus.
    std::string address;
    std::chrono::milliseconds answerTimeout{};
    std::chrono::milliseconds retryDelay{};
  };

  virtual ~BusInhibitor();
  BusInhibitor(const BusInhibitor&) = delete;
  BusInhibitor& operator=(const BusInhibitor&) = delete;

  /// Begins to ask. `reason` is a text for the user.
  void hold(const std::string& reason);
  void release();
  /// To be called when a descriptor is ready or the deadline has come.
  void advance(SteadyTime now);

  /// Negative if there is no connection. advance() may close it.
  int descriptor() const;
  /// What to wait for there, as of poll(2).
  int events() const;
  std::optional<SteadyTime> deadline() const;
  State state() const { return state_; }
  /// Of the last failure.
  const std::string& failure() const { return failure_; }

 protected:
  struct Service {
    const char* name;
    const char* path;
    const char* interface;
    int (*openBus)(sd_bus**);
  };

  BusInhibitor(Settings settings, Service service);

  /// Null if there is no connection.
  BusMessage makeCall(const char* method) const;
  /// Negative errno on failure, as of all that follow.
  virtual int addArguments(sd_bus_message* request, const std::string& reason) = 0;
  /// Takes what was granted out of the answer, in the place of an earlier grant.
  virtual int take(sd_bus_message* answer) = 0;
  /// Lets go of what was granted, if anything.
  virtual void giveBack() = 0;
  /// Null if there is no connection.
  sd_bus* bus() const { return bus_.get(); }

 private:
  struct CloseBus {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };

  void ask(SteadyTime now);
  int connect();
  int request();
  void fail(std::string why, SteadyTime now);
  void close();
  static int onAnswer(sd_bus_message* answer, void* context, sd_bus_error* error);
  static int onOwnerChange(sd_bus_message* signal, void* context, sd_bus_error* error);

  const Settings settings_;
  const Service service_;
  std::unique_ptr<sd_bus, CloseBus> bus_;
  State state_ = State::off;
  std::string reason_;
  std::string failure_;
  SteadyTime deadline_;  // of the answer while asking, of the next try after a failure
  // Set from within the bus's own calls, in which it must not be closed; acted on after them.
  std::optional<std::string> refusal_;
  bool serviceCameUp_ = false;
};

/// logind's inhibition of idleness: no suspend for lack of use.
class IdleInhibitor final : public BusInhibitor {
 public:
  explicit IdleInhibitor(Settings settings);
  ~IdleInhibitor() override;

 private:
  int addArguments(sd_bus_message* request, const std::string& reason) override;
  int take(sd_bus_message* answer) override;
  void giveBack() override;

  UniqueDescriptor lock_;  // what holds the inhibition: closed, it ends
};

/// The inhibition of the desktop's screen saver, its locking and its dimming of displays.
class ScreenSaverInhibitor final : public BusInhibitor {
 public:
  explicit ScreenSaverInhibitor(Settings settings);
  ~ScreenSaverInhibitor() override;

 private:
  int addArguments(sd_bus_message* request, const std::string& reason) override;
  int take(sd_bus_message* answer) override;
  void giveBack() override;

  std::optional<std::uint32_t> cookie_;
};

}  // namespace kestrune::linux_platform
