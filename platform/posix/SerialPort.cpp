// Serial lines through the kernel's terminal driver.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include "Clock.h"
#include "Descriptor.h"
#include "ISerialPort.h"
#include "Logging.h"

namespace {

constexpr TUint64 KWriteLimit_ms = 5000;
// Another port for the same device waits this long at most for a write that waits for room.
constexpr int KWriteSlice_ms = 50;
// Receivers still agree about the bits of a byte when the two speeds differ by this much.
constexpr TUint64 KSpeedTolerance_percent = 3;

struct TSettings {
  std::string name;
  TUint32 speed;
  bool hardwareFlowControl;
  bool lowLatency;
};

std::string Explain(int error, const std::string& name) {
  const std::string what = std::generic_category().message(error);
  switch (error) {
    case EACCES:
    case EPERM:
      return what + "; add the user to the group that owns it (ls -l " + name + ")";
    case ENOENT:
    case ENODEV:
    case ENXIO:
      return what + "; is the adapter plugged in?";
    case EBUSY:
    case EWOULDBLOCK:
      return "it is in use by another program; close it and try again";
    case ENOTTY:
      return "it is not a serial port; name the device of the line";
    default:
      return what + "; check the device and its name";
  }
}

// Logs the failure that errno names if `result` is -1.
bool Succeeded(int result, const std::string& name) {
  if (result == -1) {
    LOG_ERROR(logging::Platform, "Cannot use serial port " << name << ": " << Explain(errno, name));
  }
  return result != -1;
}

// A port that is in use or, once its line is broken or taken over, only kept for those who still point at it.
class CSerialPort : public ISerialPort {
 public:
  CSerialPort(std::string name, dev_t device, CDescriptor line)
      : iName(std::move(name)), iDevice(device), iLine(std::move(line)) {}

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override;
  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override;

  bool IsFor(dev_t device) const { return iDevice == device; }

  /// Closes the line for good. Waits for a read or write in progress, which takes KWriteSlice_ms at most.
  void GiveUpLine();

 private:
  bool WriteSome(const TUint8* buffer, TUint32 count, TUint32* written);
  void Break(const std::string& reason);
  void CloseLine();

  const std::string iName;
  const dev_t iDevice;
  // Set before iMutex is locked: a user who polls without a pause would else lock it again and again first.
  std::atomic<bool> iTakenOver{false};
  std::mutex iMutex;
  CDescriptor iLine;
};

TInt32 CSerialPort::Write(const TUint8* buffer, TUint32 count, TUint32* written) {
  const TUint64 start_ms = OSALTickCount();
  *written = 0;
  do {
    if (!WriteSome(buffer, count, written)) {
      return -1;
    }
    if (*written == count) {
      return 0;
    }
  } while (OSALTickCount() - start_ms < KWriteLimit_ms);
  LOG_ERROR(logging::Platform, "Serial port " << iName << " took only " << *written << " of " << count
                                              << " bytes in " << KWriteLimit_ms
                                              << " ms; is the device on, and its flow control wired?");
  return -1;
}

bool CSerialPort::WriteSome(const TUint8* buffer, TUint32 count, TUint32* written) {
  if (iTakenOver) {
    return false;
  }
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iLine.IsOpen()) {
    return false;
  }
  const ssize_t taken =
      RetryInterrupted([&] { return ::write(iLine.Get(), buffer + *written, count - *written); });
  if (taken == -1 && errno != EAGAIN) {
    Break(std::generic_category().message(errno));
    return false;
  }
  *written += taken > 0 ? static_cast<TUint32>(taken) : 0;
  if (*written < count) {
    pollfd room{iLine.Get(), POLLOUT, 0};
    ::poll(&room, 1, KWriteSlice_ms);
  }
  return true;
}

TInt32 CSerialPort::Read(TUint8* buffer, TUint32 count, TUint32* received) {
  *received = 0;
  if (iTakenOver) {
    return -1;
  }
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iLine.IsOpen()) {
    return -1;
  }
  if (count == 0) {
    return 0;
  }
  const ssize_t result = RetryInterrupted([&] { return ::read(iLine.Get(), buffer, count); });
  if (result > 0) {
    *received = static_cast<TUint32>(result);
    return 0;
  }
  if (result == -1 && errno == EAGAIN) {
    return 0;
  }
  Break(result == 0 ? "hung up" : std::generic_category().message(errno));
  return -1;
}

void CSerialPort::Break(const std::string& reason) {
  LOG_ERROR(logging::Platform,
            "Serial port " << iName << " is lost: " << reason << "; plug the adapter in and start again");
  CloseLine();
}

void CSerialPort::GiveUpLine() {
  iTakenOver = true;
  const std::lock_guard<std::mutex> lock(iMutex);
  CloseLine();
}

void CSerialPort::CloseLine() {
  if (iLine.IsOpen()) {
    // A child process that has not got as far as exec yet would keep the lock beyond the close.
    ::flock(iLine.Get(), LOCK_UN);
    iLine.Close();
  }
}

// Opens a character device only: opening a pipe or a file of another kind may have effects of its own.
int OpenDevice(const std::string& name) {
  struct stat status {};
  if (::stat(name.c_str(), &status) == -1) {
    return -1;
  }
  if (!S_ISCHR(status.st_mode)) {
    errno = ENOTTY;
    return -1;
  }
  return RetryInterrupted([&] { return ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); });
}

// Raw 8N1: no character means anything to the driver, and with VMIN 1 a hang-up differs from "nothing
// arrived". Without HUPCL, DTR does not fall when the port is closed, which would reset many a board.
void MakeRaw(termios2& line, const TSettings& settings) {
  line.c_iflag = 0;
  line.c_oflag = 0;
  line.c_lflag = 0;
  line.c_cflag = BOTHER | CS8 | CREAD | CLOCAL | (settings.hardwareFlowControl ? CRTSCTS : 0u);
  line.c_ispeed = settings.speed;
  line.c_ospeed = settings.speed;
  line.c_cc[VMIN] = 1;
  line.c_cc[VTIME] = 0;
}

bool IsNear(TUint64 actual, TUint64 wanted) {
  const TUint64 difference = actual > wanted ? actual - wanted : wanted - actual;
  return difference * 100 <= wanted * KSpeedTolerance_percent;
}

// A driver takes the nearest speed that it can do, and says so only when asked.
bool SetLine(int device, const TSettings& settings) {
  termios2 line{};
  if (!Succeeded(::ioctl(device, TCGETS2, &line), settings.name)) {
    return false;
  }
  MakeRaw(line, settings);
  if (!Succeeded(::ioctl(device, TCSETS2, &line), settings.name) ||
      !Succeeded(::ioctl(device, TCGETS2, &line), settings.name)) {
    return false;
  }
  if (!IsNear(line.c_ospeed, settings.speed)) {
    LOG_ERROR(logging::Platform, "Serial port " << settings.name << " cannot do " << settings.speed
                                                << " bit/s, its driver offers " << line.c_ospeed
                                                << "; choose another speed or another adapter");
    return false;
  }
  return true;
}

// Drivers without this setting refuse it, and are no worse for it.
void AskForLowLatency(int device) {
  serial_struct driver{};
  if (::ioctl(device, TIOCGSERIAL, &driver) == 0) {
    driver.flags |= static_cast<int>(ASYNC_LOW_LATENCY);
    ::ioctl(device, TIOCSSERIAL, &driver);
  }
}

bool Prepare(int device, const TSettings& settings) {
  // The lock keeps other programs' bytes off the line, while their users, and this process, may still open
  // the device. TIOCEXCL would forbid that too.
  if (!Succeeded(RetryInterrupted([&] { return ::flock(device, LOCK_EX | LOCK_NB); }), settings.name) ||
      !SetLine(device, settings)) {
    return false;
  }
  if (settings.lowLatency) {
    AskForLowLatency(device);
  }
  return Succeeded(::ioctl(device, TCFLSH, TCIFLUSH), settings.name);
}

// Every port that the process ever made. Those who were given one never give it back, so none is ever
// deleted.
class CPortTable {
 public:
  /// The one table of the process; never destroyed, since threads may use their ports while the process ends.
  static CPortTable& Instance() {
    static auto* const table = new CPortTable;
    return *table;
  }

  ISerialPort* Make(const TSettings& settings);

 private:
  void TakeOver(dev_t device);

  std::mutex iMutex;
  std::vector<std::unique_ptr<CSerialPort>> iPorts;
};

ISerialPort* CPortTable::Make(const TSettings& settings) {
  const std::lock_guard<std::mutex> lock(iMutex);
  CDescriptor device(OpenDevice(settings.name));
  struct stat status {};
  termios2 line{};
  if (!Succeeded(device.Get(), settings.name) || !Succeeded(::fstat(device.Get(), &status), settings.name) ||
      !Succeeded(::ioctl(device.Get(), TCGETS2, &line), settings.name)) {
    return nullptr;
  }
  // Only now, with the new descriptor open: the line's other end sees no hang-up between the two.
  TakeOver(status.st_rdev);
  if (!Prepare(device.Get(), settings)) {
    return nullptr;
  }
  iPorts.push_back(std::make_unique<CSerialPort>(settings.name, status.st_rdev, std::move(device)));
  return iPorts.back().get();
}

void CPortTable::TakeOver(dev_t device) {
  for (const auto& port : iPorts) {
    if (port->IsFor(device)) {
      port->GiveUpLine();
    }
  }
}

}  // namespace

ISerialPort* ISerialPort::Create(const TChr* name, TInt32 speed, TBool hardwareFlowControl,
                                 TBool lowLatency) {
  if (speed <= 0) {
    LOG_ERROR(logging::Platform, "Cannot use serial port " << name << ": a speed of " << speed
                                                           << " bit/s is none; configure one above 0");
    return nullptr;
  }
  return CPortTable::Instance().Make(
      {AsChar(name), static_cast<TUint32>(speed), hardwareFlowControl != EFalse, lowLatency != EFalse});
}
