// For the host alone: what crosses the process's serial lines. Features see ISerialPort and nothing of this.
#pragma once

#include <cstddef>
#include <string>

#include "Types.h"

namespace platform {

/// Who wants to know what crosses the serial lines. One call at a time, on whichever thread uses a port and
/// while that port is locked: an observer that takes its time holds up the line. It must not use a port.
class ILineObserver {
 public:
  virtual ~ILineObserver() = default;

  /// A port was opened at `speed` bit/s; what its driver had before is dropped, what comes from now on
  /// counts.
  virtual void OnOpened(const std::string& name, TUint32 speed) = 0;
  /// The driver took these bytes over, in one call. They may still be on their way.
  virtual void OnSent(const TUint8* bytes, std::size_t count) = 0;
  /// The driver had these bytes, in one call. They may have waited in it since the call before.
  virtual void OnReceived(const TUint8* bytes, std::size_t count) = 0;
  /// The line broke, for the reason that the system gives.
  virtual void OnLost(const std::string& reason) = 0;
  /// The line was closed in good order.
  virtual void OnClosed() = 0;
};

/// Puts `observer` in the place of the present one and returns that one, which is not called any more after
/// the return. Null, as at first, is for nobody, which costs a port one look at a word for each call of the
/// driver. The observer stays the caller's. What ports have gathered is offered to their drivers first, so
/// that the former observer misses nothing of what was written before. Any thread that does not use a port.
ILineObserver* SetLineObserver(ILineObserver* observer);

}  // namespace platform
