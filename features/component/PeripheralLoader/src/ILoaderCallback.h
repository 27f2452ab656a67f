#pragma once

#include "Types.h"

/// What a loader reports to its owner, always on the thread that delivers events. The calls may nest: the
/// owner may install the next loader from within Completed.
class ILoaderCallback {
 public:
  virtual ~ILoaderCallback() {}

  /// Steps of the loader's whole upload that are still to do, and steps in all. Steps are weights, not bytes.
  virtual void Progress(TUint32 remainingSize, TUint32 totalSize) = 0;

  /// The upload has ended; any value but EFalse means that it succeeded.
  virtual void Completed(TBool successful) = 0;

  /// The loader has been asked to abort and has taken note.
  virtual void Aborted() = 0;
};
