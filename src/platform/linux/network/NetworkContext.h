#pragma once

#include <cstddef>
#include <memory>

#include "platform/Bytes.h"
#include "platform/linux/reactor/Reactor.h"

namespace kestrune::linux_platform {

/// What the listeners and connections of one network share. Internal to this folder.
struct NetworkContext {
  const std::shared_ptr<Reactor> reactor;
  // Both on the reactor's queue.
  /// One for all connections, used within one turn of the loop: an idle connection holds none.
  Bytes readBuffer = Bytes(65'536);
  std::size_t openConnections = 0;
};

}  // namespace kestrune::linux_platform
