#include "platform/linux/credentials/CredentialService.h"
#include "platform/linux/credentials/HelperProcess.h"
#include "platform/linux/files/UserDirectories.h"

/// The credential helper with a second's patience for the keyring.
int main() {
  using namespace kestrune::linux_platform;
  using namespace std::chrono_literals;
  const CredentialVault vault(dataHome() / "kestrune", [] { return SecretService::connect({1s, 1s}); });
  return serveCredentialRequest(kHelperSocket, vault) ? 0 : 1;
}
