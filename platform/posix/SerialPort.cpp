// Serial lines through the kernel's terminal driver.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "Clock.h"
#include "Descriptor.h"
#include "Flusher.h"
#include "ISerialPort.h"
#include "LineObserver.h"
#include "LineSpeed.h"
#include "Logging.h"
#include "Observation.h"
#include "SeldomShared.h"
#include "Waiting.h"

namespace {

constexpr TUint64 KWriteLimit_ms = 5000;
// Another port for the same device waits this long at most for a write that waits for room.
constexpr int KWriteSlice_ms = 50;
// Room for the longest block of a transfer, 1029 bytes. The terminal layer takes no more at a time anyway.
constexpr std::size_t KGathered_bytes = 2048;
// Two milliseconds are promised; the rest is for the scheduler.
constexpr std::chrono::microseconds KGatheredFor(1500);
// A driver without room is given time to make some, so that the rest goes in pieces that are worth a call.
constexpr std::chrono::milliseconds KRetryAfter(10);
// The flusher looks again when somebody is using the port, be it for nanoseconds or for the whole of a write.
constexpr std::chrono::microseconds KComeBackAfter(250);
// As much as the terminal layer keeps for its reader.
constexpr std::size_t KFetched_bytes = 4096;
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

// Bytes in the order in which they came.
template <std::size_t KCapacity>
class CBytes {
 public:
  bool IsEmpty() const { return iBegin == iEnd; }
  std::size_t Size() const { return iEnd - iBegin; }
  std::size_t Room() const { return KCapacity - Size(); }
  const TUint8* Data() const { return &iBytes[iBegin]; }

  /// Adds bytes, for which there must be room.
  void Append(const TUint8* bytes, std::size_t count) {
    if (count > KCapacity - iEnd) {
      std::copy(iBytes.begin() + iBegin, iBytes.begin() + iEnd, iBytes.begin());
      iEnd -= std::exchange(iBegin, 0);
    }
    std::copy_n(bytes, count, iBytes.begin() + iEnd);
    iEnd += count;
  }

  /// Adds a byte behind others if it does not take the last place.
  bool Join(TUint8 byte) {
    if (IsEmpty() || iEnd + 1 >= KCapacity) {
      return false;
    }
    iBytes[iEnd++] = byte;
    return true;
  }

  /// Takes the first bytes away, of which there must be so many.
  void Drop(std::size_t count) {
    iBegin += count;
    if (IsEmpty()) {
      iBegin = iEnd = 0;
    }
  }

 private:
  std::array<TUint8, KCapacity> iBytes;
  std::size_t iBegin = 0;
  std::size_t iEnd = 0;
};

// A port that is in use or, once its line is broken or taken over, only kept for those who still point at it.
//
// Its users write and read byte by byte. It gathers what they write, to hand it to the driver in one call:
// when they turn to reading, when its memory is full, or when the flusher finds it waiting. And it fetches
// all that the driver has in one call, to serve the next reads from memory.
class CSerialPort : public ISerialPort, private IGatherer, private IPolled {
 public:
  CSerialPort(std::string name, dev_t device, CDescriptor line)
      : iName(std::move(name)), iDevice(device), iLine(std::move(line)) {}

  TInt32 Write(const TUint8* buffer, TUint32 count, TUint32* written) override;
  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override;

  bool IsFor(dev_t device) const { return iDevice == device; }

  /// Closes the line for good, after a last attempt to hand over what was gathered. Waits for a call in
  /// progress, which takes KWriteSlice_ms at most.
  void GiveUpLine();

  /// Hands over what was gathered, unless another thread is about to.
  void FlushAtExit();

  /// Hands over what was gathered. Waits for a call in progress.
  void Flush();

  /// Makes the port's copy in a child process the child's own: what was gathered and fetched is the parent's,
  /// and whoever held the lock is not there any more.
  void StartAnewInChild();

  CSerialPort* iMadeBefore = nullptr;  ///< for the table of ports

 private:
  void FlushDue() override;
  void AwaitChange() override;

  bool JoinsGathered(TUint8 byte);
  TInt32 WriteAll(const TUint8* buffer, TUint32 count, TUint32* written);
  bool WriteSome(const TUint8* buffer, TUint32 count, TUint32* written);
  bool WriteThrough(const TUint8* buffer, TUint32 count, TUint32* written);
  bool Gather(const TUint8* bytes, TUint32 count);
  bool HandOver();
  ssize_t WriteToDriver(const TUint8* bytes, std::size_t count);
  ssize_t HandToDriver(const TUint8* bytes, std::size_t count);
  bool Fetch();
  bool MayBeUsed();
  void GiveUpWriting(std::size_t taken, std::size_t count);
  void Break(const std::string& reason);
  void FlushOnce();
  void CloseLine();

  const std::string iName;
  const dev_t iDevice;
  // Set before iLock is taken: a user who polls without a pause would else take it again and again first.
  std::atomic<bool> iTakenOver{false};
  std::atomic<int> iFlushersWaiting{0};
  CSeldomShared iLock;
  CDescriptor iLine;
  CBytes<KGathered_bytes> iGathered;
  // When the first of them came, or when the driver last took some.
  TMoment iGatheredSince;
  // The flusher met an error of which the next call has to tell.
  bool iFailed = false;
  bool iMayGather = true;  ///< somebody will see to it that what waits does not wait for long
  CBytes<KFetched_bytes> iFetched;
  bool iLastReadWasInVain = false;
};

// All but the first and the last byte of a packet go the short way.
TInt32 CSerialPort::Write(const TUint8* buffer, TUint32 count, TUint32* written) {
  if (count == 1 && JoinsGathered(*buffer)) {
    *written = 1;
    return 0;
  }
  return WriteAll(buffer, count, written);
}

// Where something is gathered the line is open, and nothing has failed that the user does not know of.
bool CSerialPort::JoinsGathered(TUint8 byte) {
  const std::unique_lock<CSeldomShared> lock(iLock, std::try_to_lock);
  return lock.owns_lock() && iMayGather && iGathered.Join(byte);
}

TInt32 CSerialPort::WriteAll(const TUint8* buffer, TUint32 count, TUint32* written) {
  *written = 0;
  if (!WriteSome(buffer, count, written)) {
    return -1;
  }
  const TUint64 start_ms = *written < count ? OSALTickCount() : 0;
  while (*written < count) {
    if (OSALTickCount() - start_ms >= KWriteLimit_ms) {
      const std::lock_guard<CSeldomShared> lock(iLock);
      // Unless the flusher has just done so.
      if (MayBeUsed()) {
        GiveUpWriting(*written, count);
      }
      return -1;
    }
    if (!WriteSome(buffer, count, written)) {
      return -1;
    }
  }
  return 0;
}

// Takes what it can, and gives the driver a while to make room for the rest.
bool CSerialPort::WriteSome(const TUint8* buffer, TUint32 count, TUint32* written) {
  if (iTakenOver) {
    return false;
  }
  const std::lock_guard<CSeldomShared> lock(iLock);
  if (!MayBeUsed()) {
    return false;
  }
  const TUint32 rest = count - *written;
  if (rest > iGathered.Room() && !HandOver()) {
    return false;
  }
  if (rest <= iGathered.Room()) {
    *written = count;
    return Gather(buffer + count - rest, rest);
  }
  if (iGathered.IsEmpty() && !WriteThrough(buffer, count, written)) {
    return false;
  }
  if (*written < count) {
    pollfd room{iLine.Get(), POLLOUT, 0};
    ::poll(&room, 1, KWriteSlice_ms);
  }
  return true;
}

// What fills the memory anyway need not go through it.
bool CSerialPort::WriteThrough(const TUint8* buffer, TUint32 count, TUint32* written) {
  const ssize_t taken = HandToDriver(buffer + *written, count - *written);
  *written += taken > 0 ? static_cast<TUint32>(taken) : 0;
  return taken >= 0;
}

bool CSerialPort::Gather(const TUint8* bytes, TUint32 count) {
  if (count == 0) {
    return true;
  }
  if (iGathered.IsEmpty()) {
    iGatheredSince = std::chrono::steady_clock::now();
    iMayGather = CFlusher::Instance().CallAt(iGatheredSince + KGatheredFor, *this);
  }
  iGathered.Append(bytes, count);
  return (iMayGather && iGathered.Room() > 0) || HandOver();
}

void CSerialPort::FlushDue() {
  const std::unique_lock<CSeldomShared> lock(iLock, std::try_to_lock);
  const TMoment now = std::chrono::steady_clock::now();
  if (!lock.owns_lock()) {
    CFlusher::Instance().CallAt(now + KComeBackAfter, *this);
    return;
  }
  const TMoment due = iGatheredSince + KGatheredFor;
  // What is there may be younger than what the call was for.
  const bool isDue = due <= now;
  if (isDue && !HandOver()) {
    iFailed = true;
  }
  if (!iGathered.IsEmpty()) {
    CFlusher::Instance().CallAt(isDue ? now + KRetryAfter : due, *this);
  }
}

// Offers the driver what was gathered, and does not wait for it. False when the line is broken or the driver
// has taken nothing for long.
bool CSerialPort::HandOver() {
  if (iGathered.IsEmpty()) {
    return true;
  }
  const ssize_t taken = HandToDriver(iGathered.Data(), iGathered.Size());
  if (taken == -1) {
    return false;
  }
  const TMoment now = std::chrono::steady_clock::now();
  if (taken == 0 && now - iGatheredSince >= std::chrono::milliseconds(KWriteLimit_ms)) {
    GiveUpWriting(0, iGathered.Size());
    return false;
  }
  if (taken > 0) {
    iGatheredSince = now;
    iGathered.Drop(static_cast<std::size_t>(taken));
  }
  if (iGathered.IsEmpty()) {
    CFlusher::Instance().Cancel(*this);
  }
  return true;
}

// The driver's answer: how many it took, or -1.
ssize_t CSerialPort::WriteToDriver(const TUint8* bytes, std::size_t count) {
  const ssize_t taken = RetryInterrupted([&] { return ::write(iLine.Get(), bytes, count); });
  if (taken > 0) {
    CObservation::Instance().Tell(
        [&](auto& observer) { observer.OnSent(bytes, static_cast<std::size_t>(taken)); });
  }
  return taken;
}

// How many the driver took, 0 when it has no room; -1 when that was the end of the line.
ssize_t CSerialPort::HandToDriver(const TUint8* bytes, std::size_t count) {
  const ssize_t taken = WriteToDriver(bytes, count);
  if (taken == -1 && errno == EAGAIN) {
    return 0;
  }
  if (taken == -1) {
    Break(std::generic_category().message(errno));
  }
  return taken;
}

void CSerialPort::GiveUpWriting(std::size_t taken, std::size_t count) {
  LOG_ERROR(logging::Platform, "Serial port " << iName << " took only " << taken << " of " << count
                                              << " bytes in " << KWriteLimit_ms
                                              << " ms; is the device on, and its flow control wired?");
  iGathered.Drop(iGathered.Size());
}

TInt32 CSerialPort::Read(TUint8* buffer, TUint32 count, TUint32* received) {
  *received = 0;
  if (iTakenOver) {
    return -1;
  }
  const std::lock_guard<CSeldomShared> lock(iLock);
  if (!MayBeUsed() || !HandOver()) {
    return -1;
  }
  if (count > 0 && iFetched.IsEmpty() && !Fetch()) {
    return -1;
  }
  const std::size_t served = std::min<std::size_t>(count, iFetched.Size());
  std::copy_n(iFetched.Data(), served, buffer);
  iFetched.Drop(served);
  *received = static_cast<TUint32>(served);
  iLastReadWasInVain = served == 0;
  HasPolled(this);
  return 0;
}

// Takes over what the driver has, be it nothing. False when the line is broken.
bool CSerialPort::Fetch() {
  std::array<TUint8, KFetched_bytes> bytes;
  const ssize_t count = RetryInterrupted([&] { return ::read(iLine.Get(), bytes.data(), bytes.size()); });
  if (count > 0) {
    iFetched.Append(bytes.data(), static_cast<std::size_t>(count));
    CObservation::Instance().Tell(
        [&](auto& observer) { observer.OnReceived(bytes.data(), static_cast<std::size_t>(count)); });
    return true;
  }
  if (count == -1 && errno == EAGAIN) {
    return true;
  }
  Break(count == 0 ? "hung up" : std::generic_category().message(errno));
  return false;
}

// A line that ends its own wait, because it is broken, lets the next call tell of it.
void CSerialPort::AwaitChange() {
  if (iTakenOver || iFlushersWaiting != 0 || !iLastReadWasInVain) {
    return;
  }
  const std::lock_guard<CSeldomShared> lock(iLock);
  if (iLine.IsOpen()) {
    const int roomToo = iGathered.IsEmpty() ? 0 : POLLOUT;
    pollfd change{iLine.Get(), static_cast<short>(POLLIN | roomToo), 0};
    ::poll(&change, 1, KLongestPause_ms);
  }
}

bool CSerialPort::MayBeUsed() {
  return iLine.IsOpen() && !std::exchange(iFailed, false);
}

void CSerialPort::Break(const std::string& reason) {
  LOG_ERROR(logging::Platform,
            "Serial port " << iName << " is lost: " << reason << "; plug the adapter in and start again");
  CObservation::Instance().Tell([&](auto& observer) { observer.OnLost(reason); });
  CloseLine();
}

void CSerialPort::GiveUpLine() {
  iTakenOver = true;
  const std::lock_guard<CSeldomShared> lock(iLock);
  FlushOnce();
  if (iLine.IsOpen()) {
    CObservation::Instance().Tell([](auto& observer) { observer.OnClosed(); });
  }
  CloseLine();
}

void CSerialPort::FlushAtExit() {
  const std::unique_lock<CSeldomShared> lock(iLock, std::try_to_lock);
  if (lock.owns_lock()) {
    FlushOnce();
  }
}

void CSerialPort::Flush() {
  ++iFlushersWaiting;
  const std::lock_guard<CSeldomShared> lock(iLock);
  --iFlushersWaiting;
  if (iLine.IsOpen() && !HandOver()) {
    iFailed = true;
  }
}

// Nobody is left to be told of what the driver does not take now.
void CSerialPort::FlushOnce() {
  if (iLine.IsOpen() && !iGathered.IsEmpty()) {
    WriteToDriver(iGathered.Data(), iGathered.Size());
    iGathered.Drop(iGathered.Size());
  }
}

void CSerialPort::StartAnewInChild() {
  iGathered.Drop(iGathered.Size());
  iFetched.Drop(iFetched.Size());
  iFailed = false;
  iLock.unlock();
}

void CSerialPort::CloseLine() {
  iGathered.Drop(iGathered.Size());
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

void SetSpeed(termios2& line, TUint32 speed) {
  line.c_cflag = (line.c_cflag & ~static_cast<tcflag_t>(CBAUD | CIBAUD)) | BOTHER;
  line.c_ispeed = speed;
  line.c_ospeed = speed;
}

// Raw 8N1: no character means anything to the driver, and with VMIN 1 a hang-up differs from "nothing
// arrived". Without HUPCL, DTR does not fall when the port is closed, which would reset many a board.
void MakeRaw(termios2& line, const TSettings& settings) {
  line.c_iflag = 0;
  line.c_oflag = 0;
  line.c_lflag = 0;
  line.c_cflag = CS8 | CREAD | CLOCAL | (settings.hardwareFlowControl ? CRTSCTS : 0u);
  SetSpeed(line, settings.speed);
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
    static auto* const table = [] {
      std::atexit([] { Instance().FlushAtExit(); });
      ::pthread_atfork(nullptr, nullptr, [] { Instance().StartAnewInChild(); });
      return new CPortTable;
    }();
    return *table;
  }

  ISerialPort* Make(const TSettings& settings);

  /// Has every port hand over what it gathered.
  void Flush();

 private:
  void TakeOver(dev_t device);
  void FlushAtExit();
  void StartAnewInChild();

  CSeldomShared iLock;
  // A chain, so that it is whole at each moment in which another thread makes a child process.
  std::atomic<CSerialPort*> iNewest{nullptr};
};

ISerialPort* CPortTable::Make(const TSettings& settings) {
  const std::lock_guard<CSeldomShared> lock(iLock);
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
  auto* const port = new CSerialPort(settings.name, status.st_rdev, std::move(device));
  port->iMadeBefore = iNewest;
  iNewest = port;
  CObservation::Instance().Tell([&](auto& observer) { observer.OnOpened(settings.name, settings.speed); });
  return port;
}

void CPortTable::TakeOver(dev_t device) {
  for (CSerialPort* port = iNewest; port != nullptr; port = port->iMadeBefore) {
    if (port->IsFor(device)) {
      port->GiveUpLine();
    }
  }
}

void CPortTable::Flush() {
  const std::lock_guard<CSeldomShared> lock(iLock);
  for (CSerialPort* port = iNewest; port != nullptr; port = port->iMadeBefore) {
    port->Flush();
  }
}

void CPortTable::FlushAtExit() {
  const std::unique_lock<CSeldomShared> lock(iLock, std::try_to_lock);
  if (lock.owns_lock()) {
    for (CSerialPort* port = iNewest; port != nullptr; port = port->iMadeBefore) {
      port->FlushAtExit();
    }
  }
}

void CPortTable::StartAnewInChild() {
  iLock.unlock();
  CObservation::Instance().StartAnewInChild();
  for (CSerialPort* port = iNewest; port != nullptr; port = port->iMadeBefore) {
    port->StartAnewInChild();
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

platform::ILineObserver* platform::SetLineObserver(ILineObserver* observer) {
  CPortTable::Instance().Flush();
  return CObservation::Instance().Replace(observer);
}

std::optional<TUint32> platform::SpeedOfferedInsteadOf(TUint32 speed, int line) {
  termios2 before{};
  if (::ioctl(line, TCGETS2, &before) == -1 || IsNear(before.c_ospeed, speed)) {
    return std::nullopt;
  }
  termios2 tried = before;
  SetSpeed(tried, speed);
  const bool isTried = ::ioctl(line, TCSETS2, &tried) == 0 && ::ioctl(line, TCGETS2, &tried) == 0;
  ::ioctl(line, TCSETS2, &before);
  return isTried && !IsNear(tried.c_ospeed, speed) ? std::make_optional<TUint32>(tried.c_ospeed)
                                                   : std::nullopt;
}
