#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "InjectedFailures.h"
#include "Lines.h"
#include "LogCapture.h"
#include "SerialPorts.h"
#include "VirtualClock.h"
#include "Wire.h"
#include "XModem.h"

/// A scripted port that tells the test of every read and write before it happens.
class WatchedPort : public ScriptedPort {
 public:
  std::function<void()> onRead;
  std::function<void(TUint8)> onWrite;

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override {
    ++iCallsOfWrite;
    if (onWrite) {
      onWrite(*buffer);
    }
    return ScriptedPort::Write(buffer, count, written);
  }

  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override {
    if (onRead) {
      onRead();
    }
    return ScriptedPort::Read(buffer, count, received);
  }

  int Writes() const { return iCallsOfWrite; }

 private:
  int iCallsOfWrite = 0;
};

/// An engine over a scripted port, at time 0, with an empty log.
class EngineFixture : public testing::Test {
 protected:
  EngineFixture() {
    virtual_clock::Reset();
    injected_failures::Reset();
    iLog.Clear();
  }

  /// What has been written to the line so far.
  std::string Written() const { return wire::Text(iPort.Written()); }

  LogCapture iLog;
  WatchedPort iPort;
  CXModem iEngine{&iPort};
};
