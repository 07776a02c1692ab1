#include "platform/linux/network/NetlinkRoutes.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kestrune::linux_platform {
namespace {

// The kernel's macros step through a message with arithmetic that converts between signs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wold-style-cast"

std::optional<int> attributeIndex(const nlmsghdr* message, std::size_t headerSize, int wanted) {
  const auto* attribute = reinterpret_cast<const rtattr*>(static_cast<const char*>(NLMSG_DATA(message)) +
                                                          NLMSG_ALIGN(headerSize));
  auto left = static_cast<int>(NLMSG_PAYLOAD(message, NLMSG_ALIGN(headerSize)));
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type != wanted || RTA_PAYLOAD(attribute) < sizeof(int)) continue;
    int index = 0;
    std::memcpy(&index, RTA_DATA(attribute), sizeof index);
    return index;
  }
  return {};
}

/// Calls `visit` for each message of one dump; false if the kernel did not give all of it.
template <class Visit>
bool dump(int socket, std::uint16_t type, const Visit& visit) {
  struct {
    nlmsghdr header;
    rtgenmsg body;
  } request{};
  static std::atomic<std::uint32_t> nextSequence{1};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = nextSequence++;
  request.body.rtgen_family = AF_UNSPEC;
  if (send(socket, &request, request.header.nlmsg_len, 0) < 0) return false;

  alignas(nlmsghdr) std::array<char, 32'768> buffer;
  for (;;) {
    const ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    auto left = static_cast<unsigned>(count);
    for (const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      if (message->nlmsg_seq != request.header.nlmsg_seq) continue;  // of a dump that was given up
      if (message->nlmsg_type == NLMSG_DONE) return true;
      if (message->nlmsg_type == NLMSG_ERROR) return false;
      visit(message);
    }
  }
}

std::optional<NetworkPath> readPath(int socket) {
  std::set<int> links;
  const bool hasLinks = dump(socket, RTM_GETLINK, [&](const nlmsghdr* message) {
    if (message->nlmsg_type != RTM_NEWLINK || NLMSG_PAYLOAD(message, 0) < sizeof(ifinfomsg)) return;
    const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    if ((link->ifi_flags & IFF_UP) && (link->ifi_flags & IFF_RUNNING) && !(link->ifi_flags & IFF_LOOPBACK)) {
      links.insert(link->ifi_index);
    }
  });
  NetworkPath path;
  const bool hasAddresses =
      hasLinks && dump(socket, RTM_GETADDR, [&](const nlmsghdr* message) {
        if (message->nlmsg_type != RTM_NEWADDR || NLMSG_PAYLOAD(message, 0) < sizeof(ifaddrmsg)) return;
        const auto* address = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
        const auto index = static_cast<int>(address->ifa_index);
        if (address->ifa_scope < RT_SCOPE_LINK && links.contains(index)) path.interfaces.insert(index);
      });
  const bool hasRoutes =
      hasAddresses && dump(socket, RTM_GETROUTE, [&](const nlmsghdr* message) {
        if (message->nlmsg_type != RTM_NEWROUTE || NLMSG_PAYLOAD(message, 0) < sizeof(rtmsg)) return;
        const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
        if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return;
        const auto index = attributeIndex(message, sizeof(rtmsg), RTA_OIF).value_or(0);
        if (index == 0 || links.contains(index)) path.defaultRoutes.insert(index);
      });
  if (!hasRoutes) return {};
  return path;
}

#pragma GCC diagnostic pop

}  // namespace

int openRouteSocket(unsigned groups, int flags) {
  const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE);
  if (descriptor < 0) return -1;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  // The kernel answers at once; the limit only keeps a broken one from holding the thread.
  const timeval limit{1, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return descriptor;
  close(descriptor);
  return -1;
}

std::optional<NetworkPath> readNetworkPath(int socket) {
  return readPath(socket);
}

}  // namespace kestrune::linux_platform
