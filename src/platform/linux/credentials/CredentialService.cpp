#include "platform/linux/credentials/CredentialService.h"

#include <sys/socket.h>
#include <unistd.h>

namespace kestrune::linux_platform {
namespace {

bool isPeerOfThisUser(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && length == sizeof peer &&
         peer.uid == geteuid();
}

}  // namespace

bool serveCredentialRequest(int socket, const CredentialVault& vault) {
  if (!isPeerOfThisUser(socket)) return false;
  const auto message = receiveCredentialMessage(socket);
  if (!message) return false;
  const auto request = decodeCredentialRequest(*message);
  const CredentialReply reply =
      request ? vault.perform(*request) : CredentialReply{kCredentialParameterError, std::nullopt};
  return sendCredentialMessage(socket, encode(reply));
}

}  // namespace kestrune::linux_platform
