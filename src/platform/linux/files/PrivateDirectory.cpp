#include "platform/linux/files/PrivateDirectory.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

#include "platform/linux/files/ReplacedFile.h"

namespace kestrune::linux_platform {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kRightsOfOthers = 0077;
constexpr int kMostSetAside = 1000;
constexpr std::chrono::milliseconds kLockPoll{10};

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

void check(bool succeeded, const std::string& what) {
  if (!succeeded) fail(errno, what);
}

/// Makes a file or directory of this user's its own alone.
struct stat claim(int descriptor, mode_t mode, const std::string& what) {
  struct stat status {};
  check(fstat(descriptor, &status) == 0, what);
  if (status.st_uid != geteuid()) fail(EPERM, what);
  // What cannot be written can still be read.
  if (status.st_mode & kRightsOfOthers) check(fchmod(descriptor, mode) == 0 || errno == EROFS, what);
  return status;
}

}  // namespace

void makePrivateDirectories(const std::filesystem::path& path) {
  std::filesystem::path made;
  for (const auto& component : path) {
    made /= component;
    if (mkdir(made.c_str(), kDirectoryMode) != 0 && errno != EEXIST && errno != EACCES && errno != EROFS) {
      fail(errno, made.string());
    }
  }
}

PrivateDirectory::PrivateDirectory(const std::filesystem::path& path) {
  makePrivateDirectories(path);
  directory_.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  check(static_cast<bool>(directory_), path.string());
  claim(directory_.get(), kDirectoryMode, path.string());
}

std::optional<Bytes> PrivateDirectory::read(const std::string& name, std::size_t maximumBytes) const {
  // O_NONBLOCK: a FIFO in this place must not hold us.
  const UniqueDescriptor file(
      openat(directory_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return {};
  check(static_cast<bool>(file), name);
  const auto status = claim(file.get(), kFileMode, name);
  if (!S_ISREG(status.st_mode)) fail(EINVAL, name);
  if (static_cast<std::uintmax_t>(status.st_size) > maximumBytes) fail(EFBIG, name);
  Bytes bytes(static_cast<std::size_t>(status.st_size));
  std::size_t taken = 0;
  while (taken < bytes.size()) {
    const ssize_t count = ::read(file.get(), bytes.data() + taken, bytes.size() - taken);
    if (count < 0 && errno == EINTR) continue;
    check(count >= 0, name);
    if (count == 0) break;
    taken += static_cast<std::size_t>(count);
  }
  bytes.resize(taken);
  return bytes;
}

void PrivateDirectory::write(const std::string& name, ByteView bytes) const {
  replaceFile(directory_.get(), name, bytes);
}

std::optional<PrivateDirectory::FileVersion> PrivateDirectory::version(const std::string& name) const {
  struct stat status {};
  if (fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return {};
    fail(errno, name);
  }
  const auto nanoseconds = [](const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  };
  return FileVersion{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                     nanoseconds(status.st_ctim)};
}

bool PrivateDirectory::writeUnlessChanged(const std::string& name, ByteView bytes,
                                          const std::optional<FileVersion>& expected) const {
  return replaceFileIf(directory_.get(), name, bytes, [&] { return version(name) == expected; });
}

std::string PrivateDirectory::setAside(const std::string& name, const std::string& suffix) const {
  for (int number = 0; number < kMostSetAside; ++number) {
    std::string aside = name + suffix + (number == 0 ? "" : "." + std::to_string(number));
    if (renameat2(directory_.get(), name.c_str(), directory_.get(), aside.c_str(), RENAME_NOREPLACE) == 0) {
      return aside;
    }
    if (errno != EEXIST) fail(errno, name);
  }
  fail(EEXIST, name);
}

UniqueDescriptor PrivateDirectory::openForLock() const {
  // A descriptor of its own: locks belong to open files, and directory_ stays open.
  UniqueDescriptor held(openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  check(static_cast<bool>(held), "lock");
  return held;
}

UniqueDescriptor PrivateDirectory::lock() const {
  UniqueDescriptor held = openForLock();
  while (flock(held.get(), LOCK_EX) != 0) {
    if (errno != EINTR) fail(errno, "lock");
  }
  return held;
}

UniqueDescriptor PrivateDirectory::lock(std::chrono::milliseconds limit) const {
  UniqueDescriptor held = openForLock();
  const auto end = std::chrono::steady_clock::now() + limit;
  while (flock(held.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) fail(errno, "lock");
    if (std::chrono::steady_clock::now() >= end) return {};
    std::this_thread::sleep_for(kLockPoll);  // the system has no wait with a limit for this lock
  }
  return held;
}

}  // namespace kestrune::linux_platform
