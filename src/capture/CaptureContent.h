#pragma once

#include <optional>
#include <string>

#include "capture/CaptureDimensions.h"
#include "model/CaptureSource.h"
#include "model/RemoteControl.h"
#include "model/StreamSettings.h"
#include "platform/Displays.h"
#include "platform/ScreenStream.h"

namespace kestrune {

/// What a content filter means to the rest of the program. Pure functions, but for asking the displays.

/// The kind by the filter's style; the title as given, else what the content calls itself, else its kind.
CaptureSourceDescriptor describeContent(const ContentFilter& filter, const std::optional<std::string>& title);

/// The display that the filter shows: the one it names, else the active one that its rectangle overlaps most.
/// None for a filter of another style, or without an overlap.
std::optional<DisplayID> displayOfContent(const ContentFilter& filter, const Displays& displays);

/// Where a viewer's input goes; none for a filter of another style than display, or without an area.
std::optional<RemoteControlTarget> controlTargetOfContent(const ContentFilter& filter,
                                                          const Displays& displays);

/// The filter with the place and size that its display has now. Nothing if it says just that, is of another
/// style, or the display is not there.
std::optional<ContentFilter> followingDisplay(const ContentFilter& filter, const Displays& displays);

/// How a stream of this content is asked for: at the encoder's own size, rate and format, so that the encoder
/// has nothing to scale.
ScreenStreamConfiguration streamConfiguration(const ContentFilter& filter, StreamProfile profile,
                                              StreamFrameRate frameRate, AudioChannelMode audioMode,
                                              bool showsCursor, bool capturesProcessAudio);

}  // namespace kestrune
