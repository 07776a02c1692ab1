#pragma once

#include "platform/linux/credentials/CredentialVault.h"

namespace kestrune::linux_platform {

/// Serves the one request of a connection on a Unix stream socket whose other side must be a process of this
/// user. False if there was no request that could be answered.
bool serveCredentialRequest(int socket, const CredentialVault& vault);

}  // namespace kestrune::linux_platform
