#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

struct VirtualDisplayDescriptor {
  std::string name;
  int maxPixelsWide = 0;
  int maxPixelsHigh = 0;
  double widthInMillimeters = 0;
  double heightInMillimeters = 0;
  std::uint32_t vendorID = 0;
  std::uint32_t productID = 0;
  std::uint32_t serialNumber = 0;
};

struct VirtualDisplayMode {
  int width = 0;  // pixels
  int height = 0;
  double refreshRate = 0;  // Hz
};

struct VirtualDisplaySettings {
  bool hiDPI = false;
  std::vector<VirtualDisplayMode> modes;  // the first one is shown
};

/// A display that exists in software only, for this user alone. It goes with its object, and with the
/// process. Main queue only.
class VirtualDisplay {
 public:
  virtual ~VirtualDisplay() = default;

  /// Names it to every port that takes a display. Never that of another display of the process' life.
  virtual DisplayID displayID() const = 0;
  /// Brings it up; false if the system refuses. It is among Displays::activeDisplays() a little later.
  virtual bool applySettings(const VirtualDisplaySettings& settings) = 0;
};

class VirtualDisplays {
 public:
  virtual ~VirtualDisplays() = default;

  /// Whether this system can make any.
  virtual bool areAvailable() const = 0;
  /// Never null.
  virtual std::shared_ptr<VirtualDisplay> create(const VirtualDisplayDescriptor& descriptor) = 0;
};

/// One rearrangement of the displays, for the login session only; dropped at the end of the object unless it
/// was completed. Main queue only.
class DisplayConfiguration {
 public:
  virtual ~DisplayConfiguration() = default;

  /// The display's new top left corner in global points. False if the system refuses.
  virtual bool setOrigin(DisplayID display, std::int32_t x, std::int32_t y) = 0;
  /// Carries out what was set. False if the system refuses.
  virtual bool complete() = 0;
};

class DisplayArrangement {
 public:
  virtual ~DisplayArrangement() = default;

  /// Null if the system refuses.
  virtual std::unique_ptr<DisplayConfiguration> begin() = 0;
};

}  // namespace kestrune
