#pragma once

#include <chrono>
#include <functional>

/// Plays silence on the default sink of the sound server, and a short beep now and then. The beeps of a sink
/// that plays little ahead are known to a few milliseconds.
///
/// Calls `announce` on its own thread as soon as it is known when a beep will be heard; runs until the
/// process ends. Ends the process if there is no sound server.
void playBeeps(std::function<void(std::chrono::steady_clock::time_point)> announce);
