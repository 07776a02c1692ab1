#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "platform/Bytes.h"

namespace kestrune::linux_platform {

/// Puts a file of mode 0600 in the place of `name` in an open directory, in one step: after a crash at any
/// moment the old or the new content is there. A link in that place is replaced, not followed. Durable on
/// return. One writer at a time. Failures are std::system_error, and leave the old file.
void replaceFile(int directory, const std::string& name, ByteView bytes);
/// The same, with a last look when the new content is on the disk: where `isStillRight` gives false, the old
/// file stays, and the result is false.
bool replaceFileIf(int directory, const std::string& name, ByteView bytes,
                   const std::function<bool()>& isStillRight);
void replaceFile(const std::filesystem::path& file, ByteView bytes);

}  // namespace kestrune::linux_platform
