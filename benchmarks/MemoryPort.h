// The other side of the engine without a line, for measuring the engine alone.
#pragma once

#include <utility>
#include <vector>

#include "ISerialPort.h"
#include "simulator/Xmodem.h"

/// A receiver that takes what it is sent unseen: one 'C', then nothing but ACK.
class CWillingReceiver : public ISerialPort {
 public:
  TInt32 Write(const TUint8* /*buffer*/, TUint32 count, TUint32* written) override {
    *written = count;
    return 0;
  }

  TInt32 Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) override {
    *buffer = std::exchange(iSolicited, true) ? simulator::kAck : simulator::kCrcRequest;
    *received = 1;
    return 0;
  }

 private:
  bool iSolicited = false;
};

/// A sender that gives `packets` blocks of `data`, 1024 bytes, and never needs to repeat one.
class CReadySender : public ISerialPort {
 public:
  CReadySender(const std::vector<TUint8>& data, int packets)
      : iPacket(simulator::FrameBlock(0, data, simulator::Trailer::kCrc)),
        iNext(iPacket.size()),
        iPacketsLeft(packets) {}

  TInt32 Write(const TUint8* /*buffer*/, TUint32 count, TUint32* written) override {
    *written = count;
    return 0;
  }

  TInt32 Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) override {
    *received = 1;
    if (iNext == iPacket.size() && !TurnToNextPacket()) {
      *buffer = simulator::kEot;
    } else {
      *buffer = iPacket[iNext++];
    }
    return 0;
  }

 private:
  bool TurnToNextPacket() {
    if (iPacketsLeft == 0) {
      return false;
    }
    --iPacketsLeft;
    ++iPacket[1];
    --iPacket[2];
    iNext = 0;
    return true;
  }

  std::vector<TUint8> iPacket;
  std::size_t iNext;
  int iPacketsLeft;
};
