#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/Activities.h"
#include "platform/Applications.h"
#include "platform/Bundle.h"
#include "platform/CompressionSession.h"
#include "platform/Credentials.h"
#include "platform/DisplayModes.h"
#include "platform/Displays.h"
#include "platform/HTTPClient.h"
#include "platform/InputEvents.h"
#include "platform/LoginItem.h"
#include "platform/Network.h"
#include "platform/OpusCompressor.h"
#include "platform/PixelTransfer.h"
#include "platform/Preferences.h"
#include "platform/PrivacyPermissions.h"
#include "platform/RandomSource.h"
#include "platform/SampleRateConverter.h"
#include "platform/ScreenStream.h"
#include "platform/SystemInformation.h"
#include "platform/URLOpener.h"
#include "platform/UserFiles.h"
#include "platform/VirtualDisplays.h"
#include "platform/WakeNotifications.h"
#include "platform/WebSocketClient.h"
#include "platform/Windows.h"
#include "runtime/Clock.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Every port of the program. One function assembles the adapters of an operating system
/// (platform/linux/LinuxPlatform.h); the fixture of the coordinator's tests assembles fakes. Nothing is null
/// unless it says so.
struct Platform {
  std::shared_ptr<const Clock> clock;
  /// Makes a queue with a thread of its own.
  std::function<std::shared_ptr<SerialQueue>(std::string label)> makeQueue;

  std::shared_ptr<const Bundle> bundle;
  std::shared_ptr<Preferences> preferences;
  std::shared_ptr<CredentialConnector> credentials;
  std::shared_ptr<RandomSource> random;
  std::shared_ptr<UserFiles> files;

  std::shared_ptr<const Displays> displays;
  std::shared_ptr<DisplayModes> displayModes;
  std::shared_ptr<VirtualDisplays> virtualDisplays;
  std::shared_ptr<DisplayArrangement> displayArrangement;
  std::shared_ptr<Applications> applications;
  std::shared_ptr<Windows> windows;
  std::shared_ptr<PrivacyPermissions> permissions;
  std::shared_ptr<InputEvents> inputEvents;
  std::shared_ptr<ScreenCapture> screenCapture;
  std::shared_ptr<ContentSharingPicker> picker;                      // may be null
  std::shared_ptr<SampleRateConverterFactory> sampleRateConverters;  // null: no sound
  std::shared_ptr<CompressionSessionFactory> compression;
  std::shared_ptr<PixelTransferFactory> pixelTransfer;

  std::shared_ptr<Network> network;
  std::shared_ptr<HTTPClient> httpClient;
  std::shared_ptr<WebSocketClient> webSocketClient;
  std::shared_ptr<NetworkPathMonitor> pathMonitor;
  std::shared_ptr<WakeNotifications> wakeNotifications;
  std::shared_ptr<OpusCompressorFactory> opus;
  std::shared_ptr<URLOpener> urlOpener;
  SystemInformation systemInformation;
  std::shared_ptr<Activities> activities;
  std::shared_ptr<LoginItem> loginItem;
};

}  // namespace kestrune
