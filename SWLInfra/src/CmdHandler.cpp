#include "CmdHandler.h"

#include <sys/wait.h>

#include <cstdlib>

#include "Logging.h"

TInt32 ICmdHandler::SystemCmd(const TChr* command) {
  const int status = std::system(AsChar(command));  // NOLINT(concurrency-mt-unsafe): told in the header
  if (WIFEXITED(status)) {
    const TInt32 result = WEXITSTATUS(status);
    if (result != 0) {
      LOG_ERROR(logging::SWLInfra, "'" << command << "' exited, result=" << result);
    }
    return result;
  }
  if (WIFSIGNALED(status)) {
    LOG_ERROR(logging::SWLInfra, "'" << command << "' killed by signal " << WTERMSIG(status));
  } else if (WIFSTOPPED(status)) {
    LOG_ERROR(logging::SWLInfra, "'" << command << "' stopped by signal " << WSTOPSIG(status));
  } else {
    LOG_ERROR(logging::SWLInfra, "failed to spawn '" << command << "', sysres=" << status);
  }
  return 0;
}
