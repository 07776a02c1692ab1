#pragma once

#include <cstdint>
#include <memory>

#include "coordination/StreamCoordinator.h"

namespace kestrune {

/// The coordinator on this system's adapters. Null if there is no display to show. Throws an Error if
/// something else that everything needs is missing.
std::shared_ptr<StreamCoordinator> composeCoordinator(std::shared_ptr<SerialQueue> mainQueue,
                                                      std::uint16_t viewerPort);

}  // namespace kestrune
