// Goal: a port passes every byte unchanged, belongs to one program and one user at a time, tells people what
// is wrong with it, and never hangs. Method: pseudo-terminals, whose master is the device at the other end;
// what their driver cannot play (a speed that it does not do, the low-latency setting) is answered in its
// place.
#include <asm/termbits.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/serial.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <thread>

#include "Files.h"
#include "IoctlDouble.h"
#include "PortCalls.h"
#include "Support.h"

using testing::AllOf;
using testing::HasSubstr;

namespace {

constexpr int kNobody = 65534;

std::string EveryByte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

termios2 SettingsOf(const Pty& pty) {
  const CDescriptor slave(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios2 settings{};
  EXPECT_EQ(ioctl(slave.Get(), TCGETS2, &settings), 0);
  return settings;
}

// An ordinary user, whom TIOCEXCL binds.
bool BecomeOrdinary() {
  return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0);
}

bool OpensForReading(const std::string& name) {
  FILE* const file = fopen(name.c_str(), "r");
  return file != nullptr && fclose(file) == 0;
}

// How many descriptors of this process refer to the device, be it still there or not.
int DescriptorsOf(const std::string& device) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closedMeanwhile;
    const std::string target = std::filesystem::read_symlink(entry, closedMeanwhile).string();
    count += target == device || target == device + " (deleted)";
  }
  return count;
}

// Another program that holds the device from its construction to its end.
class OtherProgram {
 public:
  explicit OtherProgram(const std::string& device) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const CDescriptor readEnd(ready[0]);
    CDescriptor writeEnd(ready[1]);
    iProcess = fork();
    if (iProcess == 0) {
      const int line = open(device.c_str(), O_RDWR | O_NOCTTY);
      const char held = flock(line, LOCK_EX | LOCK_NB) == 0 ? 'y' : 'n';
      _exit(write(ready[1], &held, 1) == 1 ? pause() : 1);
    }
    writeEnd.Close();
    EXPECT_EQ(read(readEnd.Get(), &iHeld, 1), 1);
  }
  ~OtherProgram() {
    kill(iProcess, SIGKILL);
    waitpid(iProcess, nullptr, 0);
  }

  bool HoldsTheDevice() const { return iHeld == 'y'; }

 private:
  pid_t iProcess = -1;
  char iHeld = '?';
};

}  // namespace

TEST(SerialPort, PassesEveryByteUnchangedBothWays) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  EXPECT_TRUE(Writes(*port, EveryByte()));
  EXPECT_EQ(pty.Receive(256), EveryByte());
  pty.Send(EveryByte());
  EXPECT_EQ(ReadBytes(*port, 256), EveryByte());
}

TEST(SerialPort, ReadsNothingWithoutWaitingWhenNothingArrived) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  TUint8 byte = 0;
  TUint32 received = 9;
  EXPECT_LT(SecondsOf([&] { EXPECT_EQ(port->Read(&byte, 1, &received), 0); }), 0.5);
  EXPECT_EQ(received, 0u);
}

TEST(SerialPort, ReadsNoMoreThanWasAskedFor) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  pty.Send("abc");
  std::array<TUint8, 3> bytes{};
  TUint32 received = 0;
  EXPECT_EQ(port->Read(bytes.data(), 0, &received), 0);
  EXPECT_EQ(received, 0u);
  EXPECT_EQ(ReadBytes(*port, 0), "");
  while (received == 0) {
    ASSERT_EQ(port->Read(bytes.data(), 1, &received), 0);
  }
  EXPECT_EQ(received, 1u);
  EXPECT_EQ(bytes[0], 'a');
  EXPECT_EQ(bytes[1], 0);
  EXPECT_EQ(ReadBytes(*port, 2), "bc");
}

TEST(SerialPort, WritingNothingSucceeds) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  EXPECT_TRUE(Writes(*port, ""));
}

TEST(SerialPort, DropsInputFromBeforeItWasOpened) {
  Pty pty;
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  pty.Send("stale");
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  pty.Send("fresh");
  EXPECT_EQ(ReadBytes(*port, 5), "fresh");
}

TEST(SerialPort, SetsSpeedAndFlowControlAsAsked) {
  struct Case {
    TInt32 speed;
    TBool flowControl;
  };
  for (const Case& wanted : {Case{115200, EFalse}, Case{9600, ETrue}, Case{250000, EFalse}, Case{1, 2}}) {
    const Pty pty;
    ASSERT_NE(MakePort(pty.Name(), wanted.speed, wanted.flowControl), nullptr);
    const termios2 settings = SettingsOf(pty);
    EXPECT_EQ(settings.c_ospeed, static_cast<speed_t>(wanted.speed));
    EXPECT_EQ(settings.c_ispeed, static_cast<speed_t>(wanted.speed));
    EXPECT_EQ((settings.c_cflag & CRTSCTS) != 0, wanted.flowControl != EFalse) << wanted.speed;
  }
}

TEST(SerialPort, ClosingItDoesNotPullTheResetLine) {
  const Pty pty;
  const CDescriptor slave(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios2 settings{};
  ioctl(slave.Get(), TCGETS2, &settings);
  settings.c_cflag |= HUPCL | PARENB | CSTOPB;
  ASSERT_EQ(ioctl(slave.Get(), TCSETS2, &settings), 0);
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  const tcflag_t flags = SettingsOf(pty).c_cflag;
  EXPECT_EQ(flags & (HUPCL | PARENB | CSTOPB), 0u);
  EXPECT_EQ(flags & (CREAD | CLOCAL | CS8), tcflag_t{CREAD | CLOCAL | CS8});
}

TEST(SerialPort, ASpeedThatTheDriverDoesNotDoIsRefused) {
  struct Case {
    speed_t offered;
    bool good;
  };
  for (const Case& driver :
       {Case{9600, false}, Case{97000, true}, Case{103000, true}, Case{96999, false}, Case{103001, false}}) {
    const Pty pty;
    const LogCapture log;
    const OneSpeedDriver only(driver.offered);
    EXPECT_EQ(MakePort(pty.Name(), 100000) != nullptr, driver.good) << driver.offered;
    if (!driver.good) {
      EXPECT_THAT(log.OnlyError(), AllOf(HasSubstr(pty.Name()), HasSubstr("100000"),
                                         HasSubstr(std::to_string(driver.offered)), HasSubstr("choose")));
    }
  }
}

TEST(SerialPort, LowLatencyIsAskedOfTheDriverWhenWanted) {
  for (const TBool wanted : {EFalse, ETrue}) {
    const Pty pty;
    int flags = 0;
    const IoctlDouble answers([&](unsigned long request, void* argument, int& result) {
      auto* const driver = static_cast<serial_struct*>(argument);
      if (request == TIOCGSERIAL) {
        driver->flags = ASYNC_SPD_HI;
        result = 0;
      } else if (request == TIOCSSERIAL) {
        flags = driver->flags;
        result = 0;
      }
    });
    ASSERT_NE(MakePort(pty.Name(), 115200, EFalse, wanted), nullptr);
    EXPECT_EQ(flags, wanted ? static_cast<int>(ASYNC_SPD_HI | ASYNC_LOW_LATENCY) : 0);
  }
}

TEST(SerialPort, LowLatencyIsNotMissedWhereItIsNotOffered) {
  const Pty pty;
  const LogCapture log;
  EXPECT_NE(MakePort(pty.Name(), 115200, EFalse, ETrue), nullptr);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(SerialPort, WhatIsNoSerialPortIsRefusedWithAReason) {
  const TemporaryFolder folder;
  const std::string file = folder.Path("file");
  const std::string pipeName = folder.Path("pipe");
  const std::string noFolder = file + "/tty";
  WriteFile(file, "content");
  ASSERT_EQ(mkfifo(pipeName.c_str(), 0600), 0);
  struct Case {
    std::string name;
    const char* reason;
    const char* advice;
  };
  for (const Case& wrong : {Case{file, "not a serial port", "name the device"},
                            Case{pipeName, "not a serial port", "name the device"},
                            Case{folder.Path(""), "not a serial port", "name the device"},
                            Case{"/dev/null", "not a serial port", "name the device"},
                            Case{folder.Path("ttyUSB7"), "No such file", "is the adapter plugged in?"},
                            Case{noFolder, "Not a directory", "check the device and its name"},
                            Case{"", "No such file", "is the adapter plugged in?"}}) {
    const LogCapture log;
    EXPECT_EQ(MakePort(wrong.name), nullptr) << wrong.name;
    EXPECT_THAT(log.OnlyError(),
                AllOf(HasSubstr("port " + wrong.name), HasSubstr(wrong.reason), HasSubstr(wrong.advice)));
  }
  EXPECT_EQ(ContentOf(file), "content");
}

TEST(SerialPort, ASpeedOfZeroOrLessIsRefusedAndLeavesThePresentPort) {
  const Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  for (const TInt32 speed : {0, -115200}) {
    const LogCapture log;
    EXPECT_EQ(MakePort(pty.Name(), speed), nullptr);
    EXPECT_THAT(log.OnlyError(),
                AllOf(HasSubstr(pty.Name()), HasSubstr(std::to_string(speed)), HasSubstr("above 0")));
  }
  EXPECT_TRUE(Writes(*port, "x"));
}

TEST(SerialPort, ADeviceWithoutPermissionIsRefusedWithAReason) {
  const Pty pty;
  ASSERT_EQ(chmod(pty.Name().c_str(), 0), 0);
  const int result = InChild([&] {
    if (!BecomeOrdinary()) {
      return 2;
    }
    const LogCapture log;
    const bool refused = MakePort(pty.Name()) == nullptr;
    const std::string error = log.OnlyError();
    return refused && error.find("Permission denied; add the user to the group that owns it (ls -l " +
                                 pty.Name()) != std::string::npos
               ? 0
               : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST(SerialPort, ADeviceThatAnotherProgramHoldsIsRefusedUntilItLetsGo) {
  const Pty pty;
  const CDescriptor keepsTheSlave(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  {
    const OtherProgram holder(pty.Name());
    ASSERT_TRUE(holder.HoldsTheDevice());
    const LogCapture log;
    EXPECT_EQ(MakePort(pty.Name()), nullptr);
    EXPECT_THAT(log.OnlyError(),
                AllOf(HasSubstr(pty.Name()), HasSubstr("in use by another program; close it")));
  }
  EXPECT_NE(MakePort(pty.Name()), nullptr);
}

TEST(SerialPort, ADeviceThatWasMarkedExclusiveIsInUse) {
  const int result = InChild([] {
    if (!BecomeOrdinary()) {
      return 2;
    }
    const Pty pty;
    const CDescriptor other(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ioctl(other.Get(), TIOCEXCL);
    const LogCapture log;
    const bool refused = MakePort(pty.Name()) == nullptr;
    return refused && log.OnlyError().find("in use by another program") != std::string::npos ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST(SerialPort, KeepsOtherProgramsOffTheLine) {
  const Pty pty;
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  EXPECT_FALSE(OtherProgram(pty.Name()).HoldsTheDevice());
  const CDescriptor shared(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  EXPECT_EQ(flock(shared.Get(), LOCK_SH | LOCK_NB), -1);
}

TEST(SerialPort, AForeignLockInThisProcessRefusesItToo) {
  const Pty pty;
  CDescriptor foreign(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(flock(foreign.Get(), LOCK_EX | LOCK_NB), 0);
  const LogCapture log;
  EXPECT_EQ(MakePort(pty.Name()), nullptr);
  foreign.Close();
  EXPECT_NE(MakePort(pty.Name()), nullptr);
}

// The module asks whether a device is there by opening it, while a port of an earlier preparation is still
// held.
TEST(SerialPort, LeavesTheDeviceOpenableForAnOrdinaryUser) {
  const int result = InChild([] {
    if (!BecomeOrdinary()) {
      return 2;
    }
    const Pty pty;
    if (MakePort(pty.Name()) == nullptr) {
      return 3;
    }
    return OpensForReading(pty.Name()) ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

// Why the test above would fail if the port were marked exclusive.
TEST(SerialPort, AnExclusiveMarkWouldKeepAnOrdinaryUserFromOpeningTheDevice) {
  const int result = InChild([] {
    if (!BecomeOrdinary()) {
      return 2;
    }
    const Pty pty;
    const CDescriptor held(open(pty.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (ioctl(held.Get(), TIOCEXCL) != 0) {
      return 3;
    }
    return !OpensForReading(pty.Name()) && errno == EBUSY ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
}

TEST(SerialPort, ANewPortTakesTheLineOver) {
  Pty pty;
  ISerialPort* const older = MakePort(pty.Name());
  ISerialPort* const newer = MakePort(pty.Name());
  ASSERT_NE(older, nullptr);
  ASSERT_NE(newer, nullptr);
  EXPECT_EQ(ReadOnce(*older), -1);
  EXPECT_FALSE(Writes(*older, "lost"));
  EXPECT_TRUE(Writes(*newer, "kept"));
  EXPECT_EQ(pty.Receive(4), "kept");
  EXPECT_EQ(ReadOnce(*older), -1);
}

TEST(SerialPort, ANewPortByAnotherNameTakesTheLineOverToo) {
  const TemporaryFolder folder;
  const std::string link = folder.Path("link");
  Pty pty;
  ASSERT_EQ(symlink(pty.Name().c_str(), link.c_str()), 0);
  ISerialPort* const older = MakePort(pty.Name());
  ISerialPort* const newer = MakePort(link);
  ASSERT_NE(older, nullptr);
  ASSERT_NE(newer, nullptr);
  EXPECT_EQ(ReadOnce(*older), -1);
  pty.Send("x");
  EXPECT_EQ(ReadBytes(*newer, 1), "x");
}

TEST(SerialPort, APortForAnotherDeviceLeavesTheLine) {
  const Pty one;
  const Pty other;
  ISerialPort* const first = MakePort(one.Name());
  ASSERT_NE(first, nullptr);
  ASSERT_NE(MakePort(other.Name()), nullptr);
  EXPECT_EQ(ReadOnce(*first), 0);
}

TEST(SerialPort, ATakeOverDoesNotHangUpTheLine) {
  Pty pty;
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  std::atomic<bool> stop{false};
  std::atomic<bool> hungUp{false};
  fcntl(pty.Master(), F_SETFL, O_NONBLOCK);
  std::thread device([&] {
    char byte = 0;
    while (!stop) {
      hungUp = hungUp || (read(pty.Master(), &byte, 1) == -1 && errno == EIO);
    }
  });
  for (int round = 0; round < 200; ++round) {
    EXPECT_NE(MakePort(pty.Name()), nullptr);
  }
  stop = true;
  device.join();
  EXPECT_FALSE(hungUp);
}

// A child process between fork and exec holds copies of every descriptor, and with them the older port's
// lock.
TEST(SerialPort, ATakeOverSucceedsWhileAChildHoldsACopyOfTheLine) {
  const Pty pty;
  ASSERT_NE(MakePort(pty.Name()), nullptr);
  const pid_t child = fork();
  if (child == 0) {
    _exit(pause());
  }
  EXPECT_NE(MakePort(pty.Name()), nullptr);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(SerialPort, ANewPortTakesTheLineFromAThreadThatReadsAndWrites) {
  Pty pty;
  ISerialPort* port = MakePort(pty.Name());
  for (int round = 0; round < 20; ++round) {
    ASSERT_NE(port, nullptr);
    std::atomic<bool> running{false};
    std::thread user([&] {
      while (ReadOnce(*port) == 0 && Writes(*port, "x")) {
        running = true;
      }
      EXPECT_EQ(ReadOnce(*port), -1);
    });
    while (!running) {
      pty.Receive(1);
    }
    ISerialPort* newer = nullptr;
    EXPECT_LT(SecondsOf([&] { newer = MakePort(pty.Name()); }), 1.0);
    user.join();
    port = newer;
  }
}

TEST(SerialPort, ANewPortTakesTheLineFromAWriteThatWaits) {
  const Pty pty;
  ISerialPort* const older = MakePort(pty.Name());
  ASSERT_NE(older, nullptr);
  std::thread writer([&] { EXPECT_FALSE(Writes(*older, std::string(1 << 20, 'x'))); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LT(SecondsOf([&] { EXPECT_NE(MakePort(pty.Name()), nullptr); }), 1.0);
  EXPECT_LT(SecondsOf([&] { writer.join(); }), 1.0);
}

TEST(SerialPort, AWriteLargerThanTheDriversRoomEndsWhenTheDeviceTookItAll) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  std::string sent;
  while (sent.size() < 200000) {
    sent += EveryByte();
  }
  std::string arrived;
  std::thread device([&] { arrived = pty.Receive(sent.size()); });
  EXPECT_TRUE(Writes(*port, sent));
  device.join();
  EXPECT_TRUE(arrived == sent);
}

TEST(SerialPort, AWriteThatNobodyTakesFailsAfterFiveSecondsAndLeavesThePortAlive) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  const LogCapture log;
  const std::string bytes(1 << 20, 'x');
  TUint32 written = 0;
  const double seconds = SecondsOf([&] { EXPECT_EQ(Write(*port, bytes, &written), -1); });
  EXPECT_GE(seconds, 5.0);
  EXPECT_LT(seconds, 6.0);
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, bytes.size());
  EXPECT_THAT(log.OnlyError(),
              AllOf(HasSubstr(pty.Name()), HasSubstr(std::to_string(written) + " of 1048576")));
  EXPECT_EQ(pty.Receive(written).size(), written);
  EXPECT_TRUE(Writes(*port, "y"));
}

TEST(SerialPort, AnUnpluggedPortIsAnErrorForGood) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  const LogCapture log;
  pty.Unplug();
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_LT(SecondsOf([&] { EXPECT_FALSE(Writes(*port, "x")); }), 0.5);
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_THAT(log.OnlyError(), AllOf(HasSubstr(pty.Name() + " is lost"), HasSubstr("plug the adapter in")));
}

// The write itself may be taken before anybody knows.
TEST(SerialPort, WritingToAnUnpluggedPortBreaksItToo) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  const LogCapture log;
  pty.Unplug();
  EXPECT_LT(SecondsOf([&] { Writes(*port, "x"); }), 0.5);
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_FALSE(Writes(*port, "x"));
  EXPECT_THAT(log.OnlyError(), HasSubstr("is lost"));
}

TEST(SerialPort, UnpluggingEndsAWriteThatWaits) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  const LogCapture log;
  std::thread writer([&] { EXPECT_FALSE(Writes(*port, std::string(1 << 20, 'x'))); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  pty.Unplug();
  EXPECT_LT(SecondsOf([&] { writer.join(); }), 1.0);
}

TEST(SerialPort, ABrokenPortLetsGoOfTheDevice) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  ASSERT_NE(port, nullptr);
  const LogCapture log;
  EXPECT_EQ(DescriptorsOf(pty.Name()), 1);
  pty.Unplug();
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_EQ(DescriptorsOf(pty.Name()), 0);
}
