#include "Composition.h"

#include "access/CredentialHelperClient.h"
#include "access/TokenStore.h"
#include "capture/PCMConverter.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"
#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/credentials/HelperCredentialConnector.h"
#include "platform/linux/credentials/SystemRandomSource.h"
#include "platform/linux/desktop/AutostartLoginItem.h"
#include "platform/linux/desktop/DirectoryBundle.h"
#include "platform/linux/desktop/JsonPreferences.h"
#include "platform/linux/desktop/SystemActivities.h"
#include "platform/linux/input/XTestInputEvents.h"
#include "platform/linux/network/AsioNetwork.h"
#include "platform/linux/pixel/LibyuvPixelTransfer.h"
#include "platform/linux/stream/SystemScreenCapture.h"
#include "platform/linux/video/SoftwareCompressionSessionFactory.h"
#include "platform/linux/x11/X11Displays.h"
#include "platform/linux/x11/X11PrivacyPermissions.h"
#include "platform/linux/x11/X11Server.h"
#include "runtime/ThreadQueue.h"

namespace kestrune {

std::shared_ptr<StreamCoordinator> composeCoordinator(std::shared_ptr<SerialQueue> mainQueue,
                                                      std::uint16_t viewerPort) {
  using namespace linux_platform;
  const auto server = std::make_shared<X11Server>();
  const auto displays = std::make_shared<X11Displays>(server);
  if (!displays->mainDisplay()) return nullptr;

  const auto bundle = DirectoryBundle::ofRunningProgram();
  setMainBundle(bundle);
  const auto credentials =
      std::make_shared<CredentialHelperClient>(std::make_shared<HelperCredentialConnector>());

  StreamCoordinatorDependencies dependencies;
  dependencies.mainQueue = std::move(mainQueue);
  dependencies.clock = systemClock();
  dependencies.defaults = std::make_shared<JsonPreferences>();
  dependencies.tokenStore = std::make_shared<TokenStore>(credentials, std::make_shared<SystemRandomSource>());
  dependencies.bundle = bundle;
  dependencies.permissions = std::make_shared<X11PrivacyPermissions>(server);
  dependencies.displays = displays;
  dependencies.inputEvents = std::make_shared<XTestInputEvents>(server);
  dependencies.network = std::make_shared<AsioNetwork>();
  dependencies.screenCapture =
      std::make_shared<SystemScreenCapture>(std::make_shared<X11ScreenCapture>(server));
  dependencies.audioConverter =
      std::make_shared<PCMConverter>(std::make_shared<SoxrSampleRateConverterFactory>());
  dependencies.compression = std::make_shared<SoftwareCompressionSessionFactory>();
  dependencies.pixelTransfer = std::make_shared<LibyuvPixelTransferFactory>();
  dependencies.activities = std::make_shared<SystemActivities>();
  dependencies.loginItem = std::make_shared<AutostartLoginItem>();
  dependencies.makeQueue = [](std::string label) { return std::make_shared<ThreadQueue>(std::move(label)); };
  dependencies.viewerPort = viewerPort;
  return StreamCoordinator::make(std::move(dependencies));
}

}  // namespace kestrune
