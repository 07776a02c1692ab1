#include "platform/linux/files/ReplacedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {
namespace {

constexpr mode_t kFileMode = 0600;

void check(bool succeeded, const std::string& what) {
  if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

void writeAll(int descriptor, ByteView bytes, const std::string& what) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    check(count > 0, what);
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

}  // namespace

bool replaceFileIf(int directory, const std::string& name, ByteView bytes,
                   const std::function<bool()>& isStillRight) {
  const std::string temporary = name + ".new";
  // Left behind by a writer that was killed.
  check(unlinkat(directory, temporary.c_str(), 0) == 0 || errno == ENOENT, temporary);
  const UniqueDescriptor file(
      openat(directory, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  check(static_cast<bool>(file), temporary);
  try {
    writeAll(file.get(), bytes, temporary);
    check(fsync(file.get()) == 0, temporary);
  } catch (...) {
    unlinkat(directory, temporary.c_str(), 0);  // a full disk needs its room
    throw;
  }
  if (!isStillRight()) {
    check(unlinkat(directory, temporary.c_str(), 0) == 0, temporary);
    return false;
  }
  check(renameat(directory, temporary.c_str(), directory, name.c_str()) == 0, name);
  check(fsync(directory) == 0, name);
  return true;
}

void replaceFile(int directory, const std::string& name, ByteView bytes) {
  replaceFileIf(directory, name, bytes, [] { return true; });
}

void replaceFile(const std::filesystem::path& file, ByteView bytes) {
  const UniqueDescriptor directory(open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  check(static_cast<bool>(directory), file.parent_path().string());
  replaceFile(directory.get(), file.filename().string(), bytes);
}

}  // namespace kestrune::linux_platform
