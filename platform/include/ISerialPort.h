#pragma once

#include "Types.h"

/// A serial line in raw 8N1 mode. One thread uses a port at a time.
class ISerialPort {
 public:
  virtual ~ISerialPort() = default;

  /// Opens the device `name` at `speed` bit/s; input that waited in the driver is dropped.
  ///
  /// `hardwareFlowControl`: the line obeys RTS/CTS. `lowLatency`: the driver is asked to hand over each byte
  /// at once instead of collecting some first; meant for dialogues of many short turns, and without effect
  /// where a driver does not offer it.
  ///
  /// Returns null when the device cannot be opened, is no serial line, refuses the settings or is held by
  /// another program; the reason is logged at Error. The port belongs to the platform: nobody need delete it,
  /// and it stays alive until the process ends. Making a port anew for the same device takes the line over,
  /// even when it fails then: from then on the older one's reads and writes fail.
  static ISerialPort* Create(const TChr* name, TInt32 speed, TBool hardwareFlowControl, TBool lowLatency);
  using TCreate = ISerialPort* (*)(const TChr*, TInt32, TBool, TBool);

  /// Writes `count` bytes, waiting a bounded time for room in the driver. `written` receives how many the
  /// driver took. Returns 0 when it took them all, -1 on a broken line or when the time ran out.
  virtual TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) = 0;

  /// Reads what is there, at most `count` bytes, and never waits. `received` receives the number, 0 when
  /// nothing has arrived. Returns 0, or -1 when the line is broken, unplugged or taken over.
  virtual TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) = 0;
};
