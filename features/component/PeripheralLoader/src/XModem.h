#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "FileHandler.h"
#include "IXModem.h"

/// The XMODEM engine: sends blocks of 128 and 1024 bytes with CRC-16, or with a checksum where the receiver
/// asks for it; receives both sizes with CRC-16. Not thread-safe, but for Stop.
class CXModem : public IXModem {
 public:
  explicit CXModem(ISerialPort* port);
  ~CXModem() override;

  TXModemError SendFile(const TChr* name, IXModemCallback& callback) override;
  TXModemError SendBuffer(const TUint8* buffer, TInt32 size) override;
  TXModemError ReceiveFile(const TChr* name) override;
  TXModemError ReceiveBuffer(TUint8* buffer, TInt32 capacity, TInt32* received) override;
  void Stop() override;

  /// Writes one byte.
  TXModemError SendChr(TUint8 byte);

  /// Reads one byte within `limit_ms`; one that comes later is a timeout.
  TXModemError ReceiveUntil(TUint32 limit_ms, TUint8* byte);

  /// Writes one packet with the present block number: 128 bytes of data if `length` is at most that, else
  /// 1024, filled up with zeros.
  TXModemError SendPacket(const TUint8* data, TUint32 length);

  /// Reads, checks and answers the packet whose first byte has been read. `firstPacket`: it must be number 1.
  /// `buffer` holds `blockSize` bytes.
  TXModemError ReceivePacket(TInt32 firstPacket, TUint8* buffer, TUint32 blockSize);

  /// The CRC-16/XMODEM `crc` continued by one byte.
  static TUint16 CalculateCrcByte(TUint8 byte, TUint16 crc);

  /// A file handler's result as a result of the engine.
  static TXModemError Translate(IFileHandler::TFileHndlError error);

  // Engines are made and released with the C allocator.
  static void* operator new(std::size_t size) noexcept { return std::malloc(size); }
  static void operator delete(void* storage) noexcept { std::free(storage); }

 private:
  struct TReceivedPacket {
    TUint8 number;
    TUint8 complement;
    TUint16 sentCrc;
    TUint16 computedCrc;
  };

  // Asked for every byte, and nothing else depends on it.
  bool IsStopped() const { return iStopped.load(std::memory_order_relaxed); }

  void StartOperation(TUint8 packetNumber);
  void CancelIfFailed(TXModemError result);

  TXModemError WaitForStartUp();
  TXModemError SendDataPackets(const TUint8* data, TInt32 size);
  TXModemError ProcessReply();
  TXModemError FinalizeDelivery();
  TXModemError SendFileData(std::FILE* file, TUint8* buffer, TUint32 total, IXModemCallback& callback);

  TXModemError ProcessFirstByte(TInt32 firstByte, TUint8* byte);
  TUint32 BuildPacket(const TUint8* data, TUint32 length, TUint8* packet) const;
  TXModemError ReadPacket(TUint8* buffer, TUint32 blockSize, TReceivedPacket& packet);
  TXModemError CheckNumber(const TReceivedPacket& packet, TInt32 firstPacket);
  template <typename TStore>
  TXModemError ReceiveBlocks(TStore store);

  ISerialPort* iSerialPort;
  TInt32 iCrcMode;
  TUint8 iPacketNumber;
  std::atomic<bool> iStopped;
};
