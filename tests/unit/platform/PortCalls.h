// A port's operations in the words of a test.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <thread>

#include "ISerialPort.h"

inline ISerialPort* MakePort(const std::string& name, TInt32 speed = 115200, TBool flowControl = EFalse,
                             TBool lowLatency = EFalse) {
  return ISerialPort::Create(AsTChr(name), speed, flowControl, lowLatency);
}

inline TInt32 Write(ISerialPort& port, const std::string& bytes, TUint32* written) {
  return port.Write(reinterpret_cast<const TUint8*>(bytes.data()), static_cast<TUint32>(bytes.size()),
                    written);
}

/// Whether one call takes all of it.
inline bool Writes(ISerialPort& port, const std::string& bytes) {
  TUint32 written = 0;
  return Write(port, bytes, &written) == 0 && written == bytes.size();
}

/// Whether a call for each byte takes it.
inline bool WritesOneByOne(ISerialPort& port, const std::string& bytes) {
  for (const char byte : bytes) {
    if (!Writes(port, std::string(1, byte))) {
      return false;
    }
  }
  return true;
}

inline TInt32 ReadOnce(ISerialPort& port) {
  TUint8 byte = 0;
  TUint32 received = 0;
  return port.Read(&byte, 1, &received);
}

/// Reads for up to two seconds, until `count` bytes came or the port failed.
inline std::string ReadBytes(ISerialPort& port, std::size_t count) {
  std::string bytes;
  for (int wait_ms = 0; wait_ms < 2000 && bytes.size() < count; ++wait_ms) {
    std::array<TUint8, 64> block;
    TUint32 received = 0;
    if (port.Read(block.data(), static_cast<TUint32>(block.size()), &received) != 0) {
      break;
    }
    bytes.append(reinterpret_cast<const char*>(block.data()), received);
    if (received == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  return bytes;
}
