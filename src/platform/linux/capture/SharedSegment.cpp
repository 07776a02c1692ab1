#include "platform/linux/capture/SharedSegment.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrune::linux_platform {

namespace {

bool isLocalSocket(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.ss_family == AF_UNIX;
}

/// -1 if the system cannot make one.
int makeMemoryFile(std::size_t size) {
  const int fd = memfd_create("kestrune-screen", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  // The size is sealed, so that neither side can make the other's mapping fault.
  if (ftruncate(fd, static_cast<off_t>(size)) != 0 ||
      fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::unique_ptr<SharedSegment> SharedSegment::create(const X11Connection& connection, std::size_t size,
                                                     Kind kind) {
  // A descriptor sent over anything but a local socket would end the connection.
  if (!connection.extension(xcb_shm_id) || !isLocalSocket(xcb_get_file_descriptor(connection)))
    return nullptr;
  const auto version =
      waitForReply(connection, xcb_shm_query_version_reply, xcb_shm_query_version(connection));
  if (!version) return nullptr;
  const bool takesDescriptors =
      version->major_version > 1 || (version->major_version == 1 && version->minor_version >= 2);

  std::unique_ptr<SharedSegment> segment(new SharedSegment(connection, size));
  if (kind == Kind::best && takesDescriptors && segment->attachMemoryFile()) return segment;
  if (segment->attachSystemV()) return segment;
  return nullptr;
}

bool SharedSegment::attachMemoryFile() {
  const int fd = makeMemoryFile(size_);
  if (fd < 0) return false;
  void* memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    close(fd);
    return false;
  }
  const xcb_shm_seg_t id = xcb_generate_id(connection_);
  // xcb closes the descriptor once it is sent.
  const auto error = connection_.check(xcb_shm_attach_fd_checked(connection_, id, fd, 0));
  if (error || connection_.isBroken()) {
    munmap(memory, size_);
    return false;
  }
  data_ = static_cast<std::uint8_t*>(memory);
  id_ = id;
  return true;
}

bool SharedSegment::attachSystemV() {
  const int identifier = shmget(IPC_PRIVATE, size_, IPC_CREAT | 0600);
  if (identifier < 0) return false;
  void* memory = shmat(identifier, nullptr, 0);
  bool isAttached = false;
  const xcb_shm_seg_t id = xcb_generate_id(connection_);
  // shmat fails with the same -1 as mmap.
  if (memory != MAP_FAILED) {
    const auto error =
        connection_.check(xcb_shm_attach_checked(connection_, id, static_cast<std::uint32_t>(identifier), 0));
    isAttached = !error && !connection_.isBroken();
    if (!isAttached) shmdt(memory);
  }
  // Goes away with the last of the two that are attached.
  shmctl(identifier, IPC_RMID, nullptr);
  if (!isAttached) return false;
  data_ = static_cast<std::uint8_t*>(memory);
  id_ = id;
  isSystemV_ = true;
  return true;
}

SharedSegment::~SharedSegment() {
  if (id_ != 0) xcb_shm_detach(connection_, id_);
  if (data_ == nullptr) return;
  if (isSystemV_) {
    shmdt(data_);
  } else {
    munmap(data_, size_);
  }
}

}  // namespace kestrune::linux_platform
