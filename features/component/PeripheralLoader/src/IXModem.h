#pragma once

#include "ISerialPort.h"
#include "Types.h"

/// Learns how a file's transfer goes, on the thread that sends it.
class IXModemCallback {
 public:
  virtual ~IXModemCallback() {}

  /// `left` bytes of `total` are still to be sent.
  virtual void IXModemProgress(TInt32 left, TInt32 total) = 0;
};

/// Moves a file or a buffer over a serial line by XMODEM. Every operation blocks until the transfer has
/// ended; one runs at a time. The numbers of the results are seen by callers and in logs, gaps included.
class IXModem {
 public:
  enum TXModemError : TInt32 {
    EXModemOk = 0,
    EXModemFileError = 1,         ///< file not opened, read or written; or SendFile's receiver never started
    EXModemSerialPortError = 2,   ///< a write failed or the port's read reported an error
    EXModemTimeout = 3,           ///< nothing acceptable within the retries
    EXModemCancelled = 4,         ///< the other side cancelled
    EXModemNoValidPacket = 5,     ///< receiver: no block start within the retries
    EXModemCrcError = 6,          ///< receiver: a block's CRC did not match
    EXModemBlockNumberError = 7,  ///< receiver: block number and complement do not fit
    EXModemSequenceError = 8,     ///< receiver: a block that is not next
    EXModemDuplicatePacket = 10,  ///< receiver: the previous block again
    EXModemNakReceived = 11,      ///< sender: the packet must be sent again
    EXModemWrongReply = 13,       ///< a reply that fits no rule, ten times
    EXModemTooManyNaks = 15,      ///< sender: rejected too often
    EXModemFileHandlerReserved6 = 16,
    EXModemUnknownFileHandlerError = 17,
  };

  virtual ~IXModem() {}

  /// Sends the named file. `callback` hears of every chunk of up to 1024 bytes.
  virtual TXModemError SendFile(const TChr* name, IXModemCallback& callback) = 0;

  /// Sends `size` bytes.
  virtual TXModemError SendBuffer(const TUint8* buffer, TInt32 size) = 0;

  /// Receives into the named file, made anew; its length is that of the blocks, padding included.
  virtual TXModemError ReceiveFile(const TChr* name) = 0;

  /// Receives into `buffer`, which holds `capacity` bytes; `received` gets the number stored. What exceeds
  /// the capacity is dropped.
  virtual TXModemError ReceiveBuffer(TUint8* buffer, TInt32 capacity, TInt32* received) = 0;

  /// From any thread: from now on every wait and every write fails at once, so that a running operation ends
  /// soon and nothing more goes on the line; only a write that the port has already begun runs to its end.
  /// There is no way back.
  virtual void Stop() {}

  /// Makes the engine over `port`, which it borrows and never releases. The caller deletes the result. Null
  /// when there is no memory.
  static IXModem* Create(ISerialPort* port);
  using TCreate = IXModem* (*)(ISerialPort*);
};
