// kestrune-credential-helper: the only process that handles stored secrets. Started by the program with a
// socket as descriptor 3; serves one request and ends.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "platform/linux/credentials/CredentialService.h"
#include "platform/linux/credentials/HelperProcess.h"
#include "platform/linux/files/UserDirectories.h"
#include "runtime/Log.h"

namespace {

constexpr kestrune::Logger kLog("App");
// Above every limit within; a client that takes longer gets no answer.
constexpr unsigned kLongestRunSeconds = 60;
constexpr int kUsageExit = 64;

/// Secrets must reach neither a core file nor a debugger of another process of this user.
void protectMemory() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0);
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

}  // namespace

int main() {
  using namespace kestrune::linux_platform;
  protectMemory();
  umask(0077);
  alarm(kLongestRunSeconds);
  struct stat status {};
  if (fstat(kHelperSocket, &status) != 0 || !S_ISSOCK(status.st_mode)) {
    std::fputs("kestrune-credential-helper is started by kestrune and has no use of its own\n", stderr);
    return kUsageExit;
  }
  try {
    const CredentialVault vault(dataHome() / "kestrune", [] { return SecretService::connect(); });
    return serveCredentialRequest(kHelperSocket, vault) ? 0 : 1;
  } catch (const std::exception& error) {
    kLog.error(error.what());
    return 1;
  }
}
