#include "platform/linux/LinuxPlatform.h"

#include <utility>

#include "platform/linux/applications/LinuxApplications.h"
#include "platform/linux/audio/LibopusCompressor.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"
#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "platform/linux/credentials/SystemRandomSource.h"
#include "platform/linux/desktop/AutostartLoginItem.h"
#include "platform/linux/desktop/DirectoryBundle.h"
#include "platform/linux/desktop/JsonPreferences.h"
#include "platform/linux/desktop/SystemActivities.h"
#include "platform/linux/files/HomeFiles.h"
#include "platform/linux/files/UserDirectories.h"
#include "platform/linux/input/XTestInputEvents.h"
#include "platform/linux/network/AsioNetwork.h"
#include "platform/linux/pixel/LibyuvPixelTransfer.h"
#include "platform/linux/space/SpaceDisplays.h"
#include "platform/linux/space/SpaceInputEvents.h"
#include "platform/linux/space/SpaceScreenCapture.h"
#include "platform/linux/space/SpaceWindows.h"
#include "platform/linux/stream/SystemScreenCapture.h"
#include "platform/linux/video/SoftwareCompressionSessionFactory.h"
#include "platform/linux/virtualdisplay/XvfbVirtualDisplays.h"
#include "platform/linux/windows/RandRDisplayModes.h"
#include "platform/linux/windows/X11Windows.h"
#include "platform/linux/x11/X11Displays.h"
#include "platform/linux/x11/X11PrivacyPermissions.h"
#include "platform/linux/x11/X11Server.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {
namespace {

ServerPorts portsOf(const std::shared_ptr<X11Server>& server) {
  ServerPorts ports;
  ports.displays = std::make_shared<X11Displays>(server);
  ports.permissions = std::make_shared<X11PrivacyPermissions>(server);
  ports.inputEvents = std::make_shared<XTestInputEvents>(server);
  ports.screenCapture = std::make_shared<X11ScreenCapture>(server);
  const auto windows = std::make_shared<X11Windows>(server);
  ports.windows = windows;
  ports.activate = [windows](ProcessID process) { windows->activate(process); };
  ports.showHidden = [windows](ProcessID process) { windows->unhide(process); };
  return ports;
}

}  // namespace

Platform makeLinuxPlatform(std::shared_ptr<Reactor> watching) {
  const auto desktop = std::make_shared<X11Server>();
  const auto space = std::make_shared<DisplaySpace>(portsOf(desktop));
  const auto windows = std::make_shared<SpaceWindows>(space);
  Platform platform;
  platform.clock = systemClock();
  platform.makeQueue = [](std::string label) { return std::make_shared<ThreadQueue>(std::move(label)); };
  platform.bundle = DirectoryBundle::ofRunningProgram();
  platform.preferences = std::make_shared<JsonPreferences>(std::move(watching));
  platform.credentials = std::make_shared<HelperCredentialConnector>();
  platform.random = std::make_shared<SystemRandomSource>();
  platform.displays = std::make_shared<SpaceDisplays>(space);
  platform.virtualDisplays = std::make_shared<XvfbVirtualDisplays>(space, portsOf);
  platform.displayArrangement = std::make_shared<SpaceArrangement>(space);
  platform.displayModes = std::make_shared<RandRDisplayModes>(desktop, stateHome() / "kestrune");
  platform.windows = windows;
  platform.applications = std::make_shared<LinuxApplications>(
      [space](DisplayID display) { return space->environmentOf(display); },
      WindowActions{.activate = [windows](ProcessID process) { windows->activate(process); },
                    .unhide = [windows](ProcessID process) { windows->showHidden(process); }});
  platform.files = std::make_shared<HomeFiles>();
  platform.permissions = std::make_shared<SpacePermissions>(space);
  platform.inputEvents = std::make_shared<SpaceInputEvents>(space);
  platform.screenCapture = std::make_shared<SystemScreenCapture>(std::make_shared<SpaceScreenCapture>(space));
  platform.sampleRateConverters = std::make_shared<SoxrSampleRateConverterFactory>();
  platform.compression = std::make_shared<SoftwareCompressionSessionFactory>();
  platform.pixelTransfer = std::make_shared<LibyuvPixelTransferFactory>();
  platform.network = std::make_shared<AsioNetwork>();
  platform.opus = std::make_shared<LibopusCompressorFactory>();
  platform.activities = std::make_shared<SystemActivities>();
  platform.loginItem = std::make_shared<AutostartLoginItem>();
  return platform;
}

}  // namespace kestrune::linux_platform
