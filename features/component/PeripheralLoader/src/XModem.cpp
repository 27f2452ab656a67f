#include "XModem.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "Clock.h"
#include "Logging.h"

namespace {

constexpr TUint8 KSoh = 0x01;
constexpr TUint8 KStx = 0x02;
constexpr TUint8 KEot = 0x04;
constexpr TUint8 KAck = 0x06;
constexpr TUint8 KNak = 0x15;
constexpr TUint8 KCan = 0x18;
constexpr TUint8 KCrcRequest = 'C';

constexpr TUint32 KXModemSmallBlock = 128;
constexpr TUint32 KXModemLargeBlock = 1024;

constexpr TUint32 KXModemStartUpTimeout = 20000;  // ms
constexpr TUint32 KXModemReplyTimeout = 5000;     // ms

// How often a step, a receive or a packet may fail before it is given up.
constexpr TInt32 KXModemFailuresAllowed = 9;
constexpr TInt32 KXModemPacketNaksAllowed = 10;
constexpr TInt32 KXModemEotNaksAllowed = 11;

constexpr TInt32 KXModemCancelCount = 6;

constexpr TInt32 KCrcMode = 1;
constexpr TInt32 KChecksumMode = 0;

constexpr TUint32 KXModemHeader = 3;
constexpr TUint32 KXModemLongestTrailer = 2;

TUint32 BlockSize(TUint32 length) {
  return length <= KXModemSmallBlock ? KXModemSmallBlock : KXModemLargeBlock;
}

// The CRC stands in the upper half of a register, where the bit that decides is the sign: no branch, which
// random data would mispredict every other time, and two instructions a bit on ARM.
constexpr TUint32 KCrcPolynomial = 0x1021U << 16;

inline TUint32 ShiftCrc(TUint32 crc) {
  return (crc << 1) ^ (KCrcPolynomial & (0U - (crc >> 31)));
}

// Written out because compilers do not unroll so far unasked.
inline TUint32 ShiftCrcByByte(TUint32 crc) {
  crc = ShiftCrc(ShiftCrc(ShiftCrc(ShiftCrc(crc))));
  return ShiftCrc(ShiftCrc(ShiftCrc(ShiftCrc(crc))));
}

inline TUint32 AddToCrc(TUint32 crc, TUint8 byte) {
  return ShiftCrcByByte(crc ^ (static_cast<TUint32>(byte) << 24));
}

inline TUint32 BigEndian(const TUint8* bytes) {
  return (static_cast<TUint32>(bytes[0]) << 24) | (static_cast<TUint32>(bytes[1]) << 16) |
         (static_cast<TUint32>(bytes[2]) << 8) | bytes[3];
}

// The register's lower half holds bits that are still to come, so it can take four bytes at a time.
TUint16 CrcOf(const TUint8* block, TUint32 blockSize) {
  TUint32 crc = 0;
  for (const TUint8* const end = block + blockSize; block != end; block += 4) {
    crc ^= BigEndian(block);
    crc = ShiftCrcByByte(ShiftCrcByByte(ShiftCrcByByte(ShiftCrcByByte(crc))));
  }
  return static_cast<TUint16>(crc >> 16);
}

// What every wait for the other side has in common: some failures may pass, and two CAN in a row cancel.
class CPatience {
 public:
  enum TVerdict { EWaitOn, ECancelled, EExhausted };

  // Judges a wait that brought nothing, or no byte that the step asked for.
  TVerdict Judge(bool arrived, TUint8 byte) {
    if (arrived && byte == KCan) {
      return std::exchange(iCanSeen, true) ? ECancelled : EWaitOn;
    }
    iCanSeen = false;
    return ++iFailures > KXModemFailuresAllowed ? EExhausted : EWaitOn;
  }

  void ForgetCan() { iCanSeen = false; }

 private:
  TInt32 iFailures = 0;
  bool iCanSeen = false;
};

IXModem::TXModemError FileNotOpened(const TChr* name) {
  LOG_ERROR(logging::PeripheralLoader, "The file " << name << " could not be opened");
  return IXModem::EXModemFileError;
}

}  // namespace

IXModem* IXModem::Create(ISerialPort* port) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  return new CXModem(port);
}

CXModem::CXModem(ISerialPort* port)
    : iSerialPort(port), iCrcMode(KCrcMode), iPacketNumber(0), iStopped(false) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

CXModem::~CXModem() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

void CXModem::Stop() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  iStopped = true;
}

void CXModem::StartOperation(TUint8 packetNumber) {
  iCrcMode = KCrcMode;
  iPacketNumber = packetNumber;
}

// The other side is told of every failure that it has not caused itself and that the line can still carry.
void CXModem::CancelIfFailed(TXModemError result) {
  if (result == EXModemOk || result == EXModemCancelled || result == EXModemSerialPortError) {
    return;
  }
  for (TInt32 sent = 0; sent < KXModemCancelCount; ++sent) {
    if (SendChr(KCan) != EXModemOk) {
      return;
    }
  }
}

// ---- Bytes and packets ----

IXModem::TXModemError CXModem::SendChr(TUint8 byte) {
  if (IsStopped()) {
    return EXModemSerialPortError;
  }
  TUint32 written = 0;
  if (iSerialPort->Write(&byte, 1, &written) == 0 && written == 1) {
    return EXModemOk;
  }
  LOG_ERROR(logging::PeripheralLoader, "Failed writing[" << byte << "]. retVal = " << EXModemSerialPortError);
  return EXModemSerialPortError;
}

IXModem::TXModemError CXModem::ReceiveUntil(TUint32 limit_ms, TUint8* byte) {
  TUint32 received = 0;
  const TUint64 start = OSALTickCount();
  while (!IsStopped()) {
    if (iSerialPort->Read(byte, 1, &received) == -1) {
      LOG_ALWAYS(logging::PeripheralLoader, "Received serial port error!");
      return EXModemSerialPortError;
    }
    if (OSALTickCount() - start > limit_ms) {
      return EXModemTimeout;
    }
    platSleep(0);
    if (received != 0) {
      return EXModemOk;
    }
  }
  return EXModemSerialPortError;
}

TUint16 CXModem::CalculateCrcByte(TUint8 byte, TUint16 crc) {
  return static_cast<TUint16>(AddToCrc(static_cast<TUint32>(crc) << 16, byte) >> 16);
}

IXModem::TXModemError CXModem::SendPacket(const TUint8* data, TUint32 length) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  TUint8 packet[KXModemHeader + KXModemLargeBlock + KXModemLongestTrailer];
  const TUint8* const end = packet + BuildPacket(data, length, packet);
  TXModemError result = EXModemOk;
  for (const TUint8* byte = packet; byte != end && result == EXModemOk; ++byte) {
    result = SendChr(*byte);
  }
  return result;
}

TUint32 CXModem::BuildPacket(const TUint8* data, TUint32 length, TUint8* packet) const {
  const TUint32 blockSize = BlockSize(length);
  const TUint32 dataSize = std::min(length, blockSize);
  packet[0] = blockSize == KXModemSmallBlock ? KSoh : KStx;
  packet[1] = iPacketNumber;
  packet[2] = static_cast<TUint8>(255 - iPacketNumber);
  TUint8* const block = packet + KXModemHeader;
  TUint8* const blockEnd = block + blockSize;
  std::fill(std::copy_n(data, dataSize, block), blockEnd, TUint8{0});
  if (iCrcMode != KCrcMode) {
    blockEnd[0] = std::accumulate(block, blockEnd, TUint8{0});
    return KXModemHeader + blockSize + 1;
  }
  const TUint16 crc = CrcOf(block, blockSize);
  blockEnd[0] = static_cast<TUint8>(crc >> 8);
  blockEnd[1] = static_cast<TUint8>(crc & 0xFF);
  return KXModemHeader + blockSize + 2;
}

IXModem::TXModemError CXModem::ReadPacket(TUint8* buffer, TUint32 blockSize, TReceivedPacket& packet) {
  TXModemError result = ReceiveUntil(KXModemReplyTimeout, &packet.number);
  if (result == EXModemOk) {
    result = ReceiveUntil(KXModemReplyTimeout, &packet.complement);
  }
  TUint32 crc = 0;
  for (TUint32 i = 0; i < blockSize && result == EXModemOk; ++i) {
    TUint8 byte = 0;
    result = ReceiveUntil(KXModemReplyTimeout, &byte);
    buffer[i] = byte;
    crc = AddToCrc(crc, byte);
  }
  TUint8 high = 0;
  TUint8 low = 0;
  if (result == EXModemOk) {
    result = ReceiveUntil(KXModemReplyTimeout, &high);
  }
  if (result == EXModemOk) {
    result = ReceiveUntil(KXModemReplyTimeout, &low);
  }
  packet.sentCrc = static_cast<TUint16>((high << 8) | low);
  packet.computedCrc = static_cast<TUint16>(crc >> 16);
  return result;
}

IXModem::TXModemError CXModem::CheckNumber(const TReceivedPacket& packet, TInt32 firstPacket) {
  if (firstPacket != 0 && packet.number != 1) {
    LOG_ERROR(logging::PeripheralLoader, "The first packet did not have the right packet number");
    return EXModemSequenceError;
  }
  if (packet.number + packet.complement != 255) {
    LOG_ERROR(logging::PeripheralLoader, "The checksum of the received packet is not correct");
    return EXModemBlockNumberError;
  }
  if (packet.number == static_cast<TUint8>(iPacketNumber + 1)) {
    return EXModemOk;
  }
  if (packet.number == iPacketNumber) {
    SendChr(KAck);
    LOG_ERROR(logging::PeripheralLoader, "The packet received is duplicated");
    return EXModemDuplicatePacket;
  }
  LOG_ERROR(logging::PeripheralLoader, "The packet received has a wrong sequence number");
  return EXModemSequenceError;
}

IXModem::TXModemError CXModem::ReceivePacket(TInt32 firstPacket, TUint8* buffer, TUint32 blockSize) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  TReceivedPacket packet = {};
  TXModemError result = ReadPacket(buffer, blockSize, packet);
  if (result == EXModemOk) {
    result = CheckNumber(packet, firstPacket);
  }
  if (result != EXModemOk) {
    return result;
  }
  if (packet.sentCrc != packet.computedCrc) {
    SendChr(KNak);
    LOG_ERROR(logging::PeripheralLoader, "Invalid Checksum while receiving packet");
    return EXModemCrcError;
  }
  iPacketNumber = packet.number;
  return SendChr(KAck);
}

IXModem::TXModemError CXModem::Translate(IFileHandler::TFileHndlError error) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  switch (error) {
    case IFileHandler::EFileHndlOk:
      return EXModemOk;
    case IFileHandler::EFileHndlError:
      return EXModemFileError;
    case IFileHandler::EFileHndlReserved6:
      return EXModemFileHandlerReserved6;
    default:
      LOG_WARNING(logging::PeripheralLoader, "Unknown file handler error " << error);
      return EXModemUnknownFileHandlerError;
  }
}

// ---- Sender ----

IXModem::TXModemError CXModem::SendBuffer(const TUint8* buffer, TInt32 size) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartOperation(1);
  TXModemError result = WaitForStartUp();
  if (result == EXModemOk) {
    result = SendDataPackets(buffer, size);
  }
  if (result == EXModemOk) {
    result = FinalizeDelivery();
  }
  CancelIfFailed(result);
  return result;
}

IXModem::TXModemError CXModem::SendFile(const TChr* name, IXModemCallback& callback) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartOperation(1);
  const TUint32 total = static_cast<TUint32>(IFileHandler::FileSize(name));
  auto* buffer = static_cast<TUint8*>(std::malloc(std::min(total, KXModemLargeBlock)));
  if (buffer == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "Could not allocate memory for the buffer");
    FileNotOpened(name);
    return FileNotOpened(name);
  }
  std::FILE* file = IFileHandler::FOpen(AsChar(name), "rb");
  if (file == nullptr) {
    std::free(buffer);
    FileNotOpened(name);
    return FileNotOpened(name);
  }
  if (WaitForStartUp() != EXModemOk) {
    // On purpose: neither the buffer nor the file is released, and the result is that of a file.
    return FileNotOpened(name);  // NOLINT(clang-analyzer-unix.Malloc)
  }
  TXModemError result = SendFileData(file, buffer, total, callback);
  if (result == EXModemOk) {
    result = FinalizeDelivery();
  }
  CancelIfFailed(result);
  std::free(buffer);
  IFileHandler::FClose(file);
  return result;
}

IXModem::TXModemError CXModem::SendFileData(std::FILE* file, TUint8* buffer, TUint32 total,
                                            IXModemCallback& callback) {
  const TUint32 chunk = std::min(total, KXModemLargeBlock);
  TUint32 remaining = total;
  TXModemError result = EXModemOk;
  do {
    const auto count = static_cast<TUint32>(IFileHandler::FRead(buffer, 1, chunk, file));
    const bool shortRead = count != chunk && count != remaining;
    remaining -= count;
    result = shortRead ? EXModemFileError : SendDataPackets(buffer, static_cast<TInt32>(count));
    callback.IXModemProgress(static_cast<TInt32>(remaining), static_cast<TInt32>(total));
  } while (remaining != 0 && result == EXModemOk);
  return result;
}

IXModem::TXModemError CXModem::WaitForStartUp() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  CPatience patience;
  for (;;) {
    TUint8 byte = 0;
    const bool arrived = ReceiveUntil(KXModemStartUpTimeout, &byte) == EXModemOk;
    if (arrived && byte == KCrcRequest) {
      iCrcMode = KCrcMode;
      LOG_INFO(logging::PeripheralLoader, "CRC mode is requested");
      return EXModemOk;
    }
    if (arrived && byte == KNak) {
      iCrcMode = KChecksumMode;
      LOG_INFO(logging::PeripheralLoader, "No CRC mode is requested");
      return EXModemOk;
    }
    const CPatience::TVerdict verdict = patience.Judge(arrived, byte);
    if (verdict == CPatience::EWaitOn) {
      continue;
    }
    if (verdict == CPatience::ECancelled) {
      LOG_WARNING(logging::PeripheralLoader,
                  "Transmission canceled by the other side. CAN messages received");
      return EXModemCancelled;
    }
    if (!arrived) {
      LOG_WARNING(logging::PeripheralLoader, "[Timeout] while waiting for startup character");
      return EXModemTimeout;
    }
    LOG_ERROR(logging::PeripheralLoader, "Unexpected reply while waiting for startup character : " << byte);
    return EXModemWrongReply;
  }
}

IXModem::TXModemError CXModem::SendDataPackets(const TUint8* data, TInt32 size) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  TInt32 offset = 0;
  TInt32 naks = 0;
  TXModemError result = EXModemOk;
  while (size > 0 && result == EXModemOk) {
    result = SendPacket(data + offset, static_cast<TUint32>(size));
    if (result != EXModemOk) {
      return result;
    }
    LOG_INFO(logging::PeripheralLoader, "Wait for reply");
    const TXModemError reply = ProcessReply();
    if (reply == EXModemNakReceived) {
      if (++naks > KXModemPacketNaksAllowed) {
        LOG_ERROR(logging::PeripheralLoader, "Too many NAKs has been received while processing the reply");
        return EXModemTooManyNaks;
      }
      LOG_WARNING(logging::PeripheralLoader, "The packet must be re-sent");
      continue;
    }
    const auto step = static_cast<TInt32>(BlockSize(static_cast<TUint32>(size)));
    offset += step;
    size -= step;
    naks = 0;
    result = reply;
  }
  return result;
}

IXModem::TXModemError CXModem::ProcessReply() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  CPatience patience;
  for (;;) {
    TUint8 byte = 0;
    const bool arrived = ReceiveUntil(KXModemReplyTimeout, &byte) == EXModemOk;
    if (arrived && byte == KNak) {
      LOG_WARNING(logging::PeripheralLoader, "The packet must be re-transmitted. NAK received as reply");
      return EXModemNakReceived;
    }
    if (arrived && byte == KAck) {
      ++iPacketNumber;
      return EXModemOk;
    }
    const CPatience::TVerdict verdict = patience.Judge(arrived, byte);
    if (verdict == CPatience::EWaitOn) {
      continue;
    }
    if (verdict == CPatience::ECancelled) {
      LOG_WARNING(logging::PeripheralLoader,
                  "The transfer has been canceled by the other side of the communication");
      return EXModemCancelled;
    }
    if (!arrived) {
      LOG_WARNING(logging::PeripheralLoader, "[Timeout] while processing the reply");
      return EXModemTimeout;
    }
    LOG_ERROR(logging::PeripheralLoader, "Wrong reply received:" << byte);
    return EXModemWrongReply;
  }
}

IXModem::TXModemError CXModem::FinalizeDelivery() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  TInt32 naks = 0;
  CPatience patience;
  for (;;) {
    TUint8 byte = 0;
    const bool arrived = SendChr(KEot) == EXModemOk && ReceiveUntil(KXModemReplyTimeout, &byte) == EXModemOk;
    if (arrived && byte == KAck) {
      return EXModemOk;
    }
    if (arrived && byte == KNak) {
      if (++naks > KXModemEotNaksAllowed) {
        LOG_ERROR(logging::PeripheralLoader, "Too many NAKs received while finalizing the delivery");
        return EXModemTooManyNaks;
      }
      patience.ForgetCan();
      continue;
    }
    const CPatience::TVerdict verdict = patience.Judge(arrived, byte);
    if (verdict == CPatience::EWaitOn) {
      continue;
    }
    if (verdict == CPatience::ECancelled) {
      LOG_WARNING(logging::PeripheralLoader, "Transfer cancelled while finalizing the delivery");
      return EXModemCancelled;
    }
    if (!arrived) {
      LOG_WARNING(logging::PeripheralLoader, "[Timeout] while finalizing the delivery");
      return EXModemTimeout;
    }
    LOG_ERROR(logging::PeripheralLoader, "Wrong reply while finalizing the delivery");
    return EXModemWrongReply;
  }
}

// ---- Receiver ----

IXModem::TXModemError CXModem::ReceiveBuffer(TUint8* buffer, TInt32 capacity, TInt32* received) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartOperation(0);
  *received = 0;
  const TXModemError result = ReceiveBlocks([&](const TUint8* block, TUint32 blockSize) {
    const TInt32 room = std::max(capacity - *received, 0);
    const TInt32 count = std::min(static_cast<TInt32>(blockSize), room);
    std::copy_n(block, count, buffer + *received);
    *received += count;
    return EXModemOk;
  });
  CancelIfFailed(result);
  return result;
}

IXModem::TXModemError CXModem::ReceiveFile(const TChr* name) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  StartOperation(0);
  TXModemError result = EXModemFileError;
  std::FILE* file = IFileHandler::FOpen(AsChar(name), "wb");
  if (file == nullptr) {
    LOG_ERROR(logging::PeripheralLoader, "The file " << name << " could not be open for writting");
  } else {
    result = ReceiveBlocks([&](const TUint8* block, TUint32 blockSize) {
      if (IFileHandler::FWrite(block, 1, blockSize, file) == blockSize) {
        return EXModemOk;
      }
      LOG_ERROR(logging::PeripheralLoader,
                "The data received could not be stored in the specified file : " << name);
      return EXModemFileError;
    });
    IFileHandler::FClose(file);
  }
  CancelIfFailed(result);
  return result;
}

// Receives blocks until the sender ends the transfer and hands each good one to `store`, which answers
// EXModemOk to go on.
template <typename TStore>
IXModem::TXModemError CXModem::ReceiveBlocks(TStore store) {
  TUint8 block[KXModemLargeBlock];
  TInt32 firstByte = 1;
  TInt32 firstPacket = 1;
  TInt32 failures = 0;
  for (;;) {
    TUint8 start = 0;
    TXModemError result = ProcessFirstByte(firstByte, &start);
    if (result != EXModemOk) {
      return result;
    }
    if (start == KEot) {
      return SendChr(KAck);
    }
    const TUint32 blockSize = start == KSoh ? KXModemSmallBlock : KXModemLargeBlock;
    result = ReceivePacket(firstPacket, block, blockSize);
    firstByte = 0;
    if (result == EXModemOk) {
      failures = 0;
      firstPacket = 0;
      result = store(block, blockSize);
      if (result != EXModemOk) {
        return result;
      }
    } else if (result == EXModemSequenceError || result == EXModemBlockNumberError ||
               ++failures > KXModemFailuresAllowed) {
      return result;
    }
  }
}

IXModem::TXModemError CXModem::ProcessFirstByte(TInt32 firstByte, TUint8* byte) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  CPatience patience;
  *byte = 0;
  for (;;) {
    const bool asked = firstByte != 1 || SendChr(KCrcRequest) == EXModemOk;
    const bool arrived = asked && ReceiveUntil(KXModemReplyTimeout, byte) == EXModemOk;
    if (arrived && (*byte == KSoh || *byte == KStx || (*byte == KEot && firstByte != 1))) {
      return EXModemOk;
    }
    const CPatience::TVerdict verdict = patience.Judge(arrived, *byte);
    if (verdict == CPatience::EWaitOn) {
      continue;
    }
    if (verdict == CPatience::ECancelled) {
      LOG_WARNING(logging::PeripheralLoader, "Transfer cancelled while processing the first byte");
      return EXModemCancelled;
    }
    if (!arrived) {
      LOG_WARNING(logging::PeripheralLoader, "[Timeout] arrived while processing the first byte");
      return EXModemTimeout;
    }
    if (*byte == KEot) {
      LOG_ERROR(logging::PeripheralLoader, "EOT arrived while processing the first byte on the first packet");
    } else {
      LOG_ERROR(logging::PeripheralLoader, "No valid packet arrived while processing the first byte");
    }
    return EXModemNoValidPacket;
  }
}
