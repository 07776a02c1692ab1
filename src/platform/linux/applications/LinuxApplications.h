#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Applications.h"
#include "platform/linux/applications/BrowserInstallation.h"
#include "platform/linux/applications/FollowedApplication.h"
#include "platform/linux/reactor/ReactorThread.h"

namespace kestrune::linux_platform {

/// The applications of a Linux desktop, of which one is known: "com.google.Chrome" is Google Chrome, else
/// Chromium.
///
/// What is started runs in a session of its own, with the environment of this program but for what belongs to
/// its display, reads and writes nothing, and goes on when this program ends. It is started and followed on a
/// thread of its own ("applications").
class LinuxApplications final : public Applications {
 public:
  /// What the environment of an application on a display has different: "NAME=value", or "NAME" alone for
  /// what it does not have. Called by open().
  using Environment = std::function<std::vector<std::string>(DisplayID)>;

  LinuxApplications(Environment environmentOf, WindowActions windows,
                    BrowserPlaces places = BrowserPlaces::ofUser());
  ~LinuxApplications() override;

  std::optional<Application> find(std::string_view bundleIdentifier) const override;
  /// Completes on the thread.
  void open(const Application& application, const LaunchConfiguration& configuration,
            OpenCompletion completion) override;
  /// One process has one object for as long as it runs.
  std::shared_ptr<RunningApplication> running(ProcessID process, std::string_view bundleIdentifier) override;

 private:
  class Register;

  const Environment environmentOf_;
  const WindowActions windows_;
  const BrowserPlaces places_;
  const std::shared_ptr<Register> register_;
  ReactorThread thread_;  // "applications"
};

}  // namespace kestrune::linux_platform
