#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/VirtualDisplays.h"
#include "platform/linux/space/DisplaySpace.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// Virtual displays as private X servers (Xvfb) that join a space. Each has a thread ("virtual-display"), on
/// which its server is started, watched and ended: no call waits for a server but that of its start, and the
/// end of this object, which waits until all servers have ended (OwnedProcess::kEndLimit and a little more).
///
/// A display joins the space when its server answers, and leaves it with its VirtualDisplay object, or when
/// the server ends by itself; the log says so. It is brought up once; another attempt wants another object.
/// What a VirtualDisplayDescriptor says of vendor, product and serial number has no counterpart in X; the
/// millimetres give the resolution that programs are told. `hiDPI` is refused: one point is one pixel.
class XvfbVirtualDisplays final : public VirtualDisplays {
 public:
  /// Makes the ports of a server, on the display's thread.
  using PortsOf = std::function<ServerPorts(std::shared_ptr<X11Server> server)>;

  XvfbVirtualDisplays(std::shared_ptr<DisplaySpace> space, PortsOf portsOf);
  ~XvfbVirtualDisplays() override;

  /// Whether there is an Xvfb on the search path.
  bool areAvailable() const override;
  std::shared_ptr<VirtualDisplay> create(const VirtualDisplayDescriptor& descriptor) override;

 private:
  class Display;
  class Handle;

  const std::shared_ptr<DisplaySpace> space_;
  const PortsOf portsOf_;
  std::vector<std::shared_ptr<Display>> displays_;  // whose threads have not been seen to end
};

}  // namespace kestrune::linux_platform
