#pragma once

#include "Types.h"

/// Runs shell commands. Stateless; from any thread, as far as the C library's system() is.
class __attribute__((visibility("default"))) ICmdHandler {
 public:
  /// Hands `command` to the shell and waits for its end, however long it takes. Returns the exit status, 0 to
  /// 255. A shell that was killed or stopped, or that could not be started, answers 0 as well and is told
  /// only by the log: what a caller can rely on is that another value means a command that ran and failed.
  static TInt32 SystemCmd(const TChr* command);
};
