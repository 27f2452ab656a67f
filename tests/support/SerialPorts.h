#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "ISerialPort.h"

/// A call of ISerialPort::Create.
struct PortRequest {
  std::string name;
  TInt32 speed;
  TBool hardwareFlowControl;
  TBool lowLatency;
};

/// What ISerialPort::Create does in tests. Without a factory it returns null.
using PortFactory = std::function<ISerialPort*(const PortRequest&)>;
void SetPortFactory(PortFactory factory);

/// A port that plays what the test wrote down and remembers what was written to it. It moves the virtual
/// clock, so that waits cost no time. After the script's end nothing arrives any more; every read then takes
/// a second.
class ScriptedPort : public ISerialPort {
 public:
  /// These bytes arrive, one a read.
  ScriptedPort& Bytes(std::initializer_list<int> bytes);
  ScriptedPort& Bytes(const std::vector<std::uint8_t>& bytes);
  /// `times` bytes of the same value.
  ScriptedPort& Repeat(int byte, int times);
  /// The time passes by `ms` in one read and nothing arrives.
  ScriptedPort& Silence(std::uint64_t ms);
  /// The time passes by `ms` in one read, at whose end the byte arrives.
  ScriptedPort& Late(std::uint64_t ms, int byte);
  /// A read answers -1.
  ScriptedPort& ReadError();

  /// The `n`-th write (from 1) and all behind it fail; `count` limits how many do.
  void FailWritesFrom(int n, int count = 1 << 30);
  /// A failing write answers 0 with nothing written, instead of -1.
  void FailWritesQuietly() { iQuietFailure = true; }

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override;
  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override;

  /// Everything that was written, in order.
  const std::vector<std::uint8_t>& Written() const { return iWritten; }
  /// Whether the whole script has been read.
  bool IsPlayed() const { return iScript.empty(); }
  int Reads() const { return iReads; }

 private:
  struct Step {
    enum Kind { kByte, kSilence, kError } kind;
    std::uint64_t after_ms;
    std::uint8_t byte;
  };

  std::deque<Step> iScript;
  std::vector<std::uint8_t> iWritten;
  int iReads = 0;
  int iWrites = 0;
  int iFirstFailure = 0;
  int iFailures = 0;
  bool iQuietFailure = false;
};
