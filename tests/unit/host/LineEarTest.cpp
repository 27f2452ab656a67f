// Goal: a device that says nothing is known from one that speaks, and whether a block was sent.
// Method: a port of a pseudo-terminal, whose other side speaks or does not.
#include "LineEar.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "ISerialPort.h"
#include "PseudoTerminal.h"
#include "trace/Recorder.h"

namespace {

using host::LineEar;
using Kind = host::Hearing::Kind;

ISerialPort* Open(const PseudoTerminal& terminal) {
  return ISerialPort::Create(reinterpret_cast<const TChr*>(terminal.Name().c_str()), 115200, EFalse, EFalse);
}

void Send(ISerialPort& port, TUint8 byte) {
  TUint32 count = 0;
  ASSERT_EQ(port.Write(&byte, 1, &count), 0);
  ASSERT_EQ(port.Read(&byte, 1, &count), 0) << "what was written is handed over before";
}

void Hear(ISerialPort& port) {
  TUint8 byte = 0;
  TUint32 count = 0;
  for (int tries = 0; tries < 2000 && count == 0; ++tries) {
    ASSERT_EQ(port.Read(&byte, 1, &count), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TEST(LineEar, KnowsADeviceThatSaysNothing) {
  LineEar ear;
  EXPECT_EQ(ear.Hear().kind, Kind::Unknown);
  const PseudoTerminal terminal;
  ISerialPort* const port = Open(terminal);
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(ear.Hear().kind, Kind::Nothing);
  terminal.Say("C");
  Hear(*port);
  EXPECT_EQ(ear.Hear().kind, Kind::Speaks);
  ASSERT_NE(Open(terminal), nullptr);
  EXPECT_EQ(ear.Hear().kind, Kind::Nothing) << "the next device's turn";
}

TEST(LineEar, KnowsWhetherABlockWasSent) {
  LineEar ear;
  EXPECT_FALSE(ear.KnowsThatNothingWasWritten()) << "nobody listened to whatever was";
  const PseudoTerminal terminal;
  ISerialPort* const port = Open(terminal);
  ASSERT_NE(port, nullptr);
  for (const TUint8 byte : std::initializer_list<TUint8>{0x43, 0x15, 0x06, 0x18}) {
    Send(*port, byte);
  }
  EXPECT_TRUE(ear.KnowsThatNothingWasWritten());
  Send(*port, 0x01);
  EXPECT_FALSE(ear.KnowsThatNothingWasWritten());
  ASSERT_NE(Open(terminal), nullptr);
  EXPECT_FALSE(ear.KnowsThatNothingWasWritten());
}

TEST(LineEar, HearsWhatARecorderHearsAndWhatComesAfterIt) {
  LineEar ear;
  const PseudoTerminal terminal;
  {
    host::trace::Recorder recorder;
    recorder.Start("");
    ISerialPort* const port = Open(terminal);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ear.Hear().kind, Kind::Nothing);
    terminal.Say("C");
    Hear(*port);
    EXPECT_EQ(ear.Hear().kind, Kind::Speaks);
  }
  ASSERT_NE(Open(terminal), nullptr);
  EXPECT_EQ(ear.Hear().kind, Kind::Nothing);
}

TEST(LineEar, TakesADeviceForSilentThatHasSaidNothingFor20Seconds) {
  LineEar ear;
  ear.OnReceived(nullptr, 0);
  EXPECT_EQ(ear.Hear().kind, Kind::Speaks);
  EXPECT_EQ(ear.Hear(std::chrono::steady_clock::now() + std::chrono::seconds(19)).kind, Kind::Speaks);
  const host::Hearing later = ear.Hear(std::chrono::steady_clock::now() + std::chrono::seconds(41));
  EXPECT_EQ(later.kind, Kind::FellSilent);
  EXPECT_EQ(later.silence, std::chrono::seconds(41));
}

}  // namespace
