#pragma once

#include "Types.h"

/// Brings one peripheral's firmware up to date. Every operation is called on the thread that delivers events;
/// the outcome is told through ILoaderCallback.
class ILoader {
 public:
  virtual ~ILoader() {}

  /// Reads and checks what the upload needs. ETrue when the loader is ready to install, EFalse when not;
  /// every fault is logged.
  virtual TBool Prepare() = 0;

  /// Starts the upload and returns at once. Callbacks may come from within.
  virtual void Install() = 0;

  /// Asks a running upload to stop; answered by ILoaderCallback::Aborted.
  virtual void Abort() = 0;
};
