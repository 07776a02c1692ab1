#pragma once

#include <string_view>

namespace kestrune {

/// Names the calling thread as the queue that it runs: what follows the last dot, cut to the 15 characters
/// that the system keeps.
void nameThread(std::string_view queueName);

}  // namespace kestrune
