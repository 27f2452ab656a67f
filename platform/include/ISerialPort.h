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
  /// even when it fails then: from then on the older one's reads and writes fail. What the older one has
  /// gathered (see Write) is offered to the driver once more, before anything of the new one's; what the
  /// driver has no room for is dropped. The same happens when the process ends by exit() or a return from
  /// main().
  static ISerialPort* Create(const TChr* name, TInt32 speed, TBool hardwareFlowControl, TBool lowLatency);
  /// What Create is, for those who are given a way to make ports.
  using TCreate = ISerialPort* (*)(const TChr*, TInt32, TBool, TBool);

  /// Writes `count` bytes, waiting up to 5 s for room in the driver. `written` receives how many were
  /// accepted. Returns 0 when all of them were, -1 on a broken line or when the time ran out.
  ///
  /// Accepted bytes may be gathered, so that many small writes cost one call of the driver. They go to the
  /// driver at the next Read at the latest, when they fill the port's memory, and within 2 ms when neither
  /// comes. An error that shows only then is reported by the next Write or Read; as one counts a driver that
  /// takes nothing for 5 s, whereupon what was gathered is dropped.
  virtual TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) = 0;

  /// Reads what is there, at most `count` bytes, and never waits. `received` receives the number, 0 when
  /// nothing has arrived. Returns 0, or -1 when the line is broken, unplugged or taken over, or when bytes
  /// that were accepted earlier could not be written. A thread that reads again and again calls platSleep(0)
  /// between.
  virtual TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) = 0;
};
