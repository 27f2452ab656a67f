#pragma once

#include <atomic>
#include <thread>

#include "SerialPorts.h"

/// A port that plays its script and is silent then, while the time stands still: whoever waits, waits for
/// ever.
class DyingPort : public ISerialPort {
 public:
  ScriptedPort script;

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override {
    return script.Write(buffer, count, written);
  }
  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override {
    if (!script.IsPlayed()) {
      return script.Read(buffer, count, received);
    }
    ++iVainReads;
    std::this_thread::yield();
    return 0;
  }

  /// Returns when somebody waits in vain.
  void WaitUntilSilent() const {
    while (iVainReads < 3) {
      std::this_thread::yield();
    }
  }

 private:
  std::atomic<int> iVainReads{0};
};
