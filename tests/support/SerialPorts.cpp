#include "SerialPorts.h"

#include <utility>

#include "VirtualClock.h"

namespace {
PortFactory& Factory() {
  static PortFactory factory;
  return factory;
}
}  // namespace

void SetPortFactory(PortFactory factory) {
  Factory() = std::move(factory);
}

ISerialPort* ISerialPort::Create(const TChr* name, TInt32 speed, TBool hardwareFlowControl,
                                 TBool lowLatency) {
  return Factory() ? Factory()({AsChar(name), speed, hardwareFlowControl, lowLatency}) : nullptr;
}

ScriptedPort& ScriptedPort::Bytes(std::initializer_list<int> bytes) {
  for (const int byte : bytes) {
    Late(0, byte);
  }
  return *this;
}

ScriptedPort& ScriptedPort::Bytes(const std::vector<std::uint8_t>& bytes) {
  for (const std::uint8_t byte : bytes) {
    Late(0, byte);
  }
  return *this;
}

ScriptedPort& ScriptedPort::Repeat(int byte, int times) {
  for (int i = 0; i < times; ++i) {
    Late(0, byte);
  }
  return *this;
}

ScriptedPort& ScriptedPort::Silence(std::uint64_t ms) {
  iScript.push_back({Step::kSilence, ms, 0});
  return *this;
}

ScriptedPort& ScriptedPort::Late(std::uint64_t ms, int byte) {
  iScript.push_back({Step::kByte, ms, static_cast<std::uint8_t>(byte)});
  return *this;
}

ScriptedPort& ScriptedPort::ReadError() {
  iScript.push_back({Step::kError, 0, 0});
  return *this;
}

void ScriptedPort::FailWritesFrom(int n, int count) {
  iFirstFailure = n;
  iFailures = count;
}

TInt32 ScriptedPort::Write(const TUint8* buffer, TUint32 count, TUint32* written) {
  ++iWrites;
  if (iFirstFailure != 0 && iWrites >= iFirstFailure && iWrites - iFirstFailure < iFailures) {
    *written = 0;
    return iQuietFailure ? 0 : -1;
  }
  iWritten.insert(iWritten.end(), buffer, buffer + count);
  *written = count;
  return 0;
}

TInt32 ScriptedPort::Read(TUint8* buffer, TUint32 /*count*/, TUint32* received) {
  ++iReads;
  *received = 0;
  if (iScript.empty()) {
    virtual_clock::Advance_ms(1000);
    return 0;
  }
  const Step step = iScript.front();
  iScript.pop_front();
  virtual_clock::Advance_ms(step.after_ms);
  if (step.kind == Step::kError) {
    return -1;
  }
  if (step.kind == Step::kByte) {
    *buffer = step.byte;
    *received = 1;
  }
  return 0;
}
