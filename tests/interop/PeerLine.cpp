#include "PeerLine.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

// The platform wants a number; a pseudo-terminal takes any and heeds none.
constexpr TInt32 kNominalBaud = 115200;
constexpr int kPollSlice_ms = 20;
constexpr unsigned kBitsPerByte = 10;
constexpr unsigned kSlicesPerSecond = 1000;

void Require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(what);
  }
}

bool IsReady(int descriptor, short event, int limit_ms) {
  pollfd waiting{descriptor, event, 0};
  return poll(&waiting, 1, limit_ms) == 1;
}

std::array<int, 2> MakeSocketPair() {
  std::array<int, 2> ends{-1, -1};
  Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "no socket pair");
  return ends;
}

// Holds bytes back for as long as a line of that speed has them under way.
class Pace {
 public:
  explicit Pace(unsigned baud) : iBaud(baud) {}

  std::size_t MostAtOnce() const {
    return iBaud == 0 ? 4096 : std::max(iBaud / kBitsPerByte / kSlicesPerSecond, 1U);
  }
  void LineWasIdle() { iFreeAt = Clock::now(); }
  void Carry(std::size_t count) {
    if (iBaud != 0) {
      iFreeAt += std::chrono::nanoseconds(std::nano::den * kBitsPerByte * static_cast<long>(count) / iBaud);
      std::this_thread::sleep_until(iFreeAt);
    }
  }

 private:
  unsigned iBaud;
  Clock::time_point iFreeAt = Clock::now();
};

}  // namespace

PeerLine::PeerLine(unsigned baud) : PeerLine(baud, MakeSocketPair()) {}

PeerLine::PeerLine(unsigned baud, std::array<int, 2> ends)
    : iBaud(baud),
      iMaster(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)),
      iOurEnd(ends[0]),
      iPeersEnd(ends[1]) {
  char name[64] = "";
  Require(iMaster.IsOpen() && grantpt(iMaster.Get()) == 0 && unlockpt(iMaster.Get()) == 0 &&
              ptsname_r(iMaster.Get(), name, sizeof name) == 0,
          "no pseudo-terminal");
  iPort = ISerialPort::Create(AsTChr(name), kNominalBaud, EFalse, ETrue);
  Require(iPort != nullptr, "the platform does not open the pseudo-terminal");
}

PeerLine::~PeerLine() {
  iEnding = true;
  for (std::thread* mover : {&iToPeerMover, &iFromPeerMover}) {
    if (mover->joinable()) {
      mover->join();
    }
  }
}

void PeerLine::Connect() {
  iPeersEnd.Close();
  iToPeerMover = std::thread([this] { Move(iMaster.Get(), iOurEnd.Get(), [](char*, std::size_t) {}); });
  iFromPeerMover = std::thread([this] {
    Move(iOurEnd.Get(), iMaster.Get(),
         [this](char* bytes, std::size_t count) { RecordAndSpoil(bytes, count); });
    iPeerHasGone = true;
  });
}

std::string PeerLine::FromPeer() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iFromPeer;
}

void PeerLine::RecordAndSpoil(char* bytes, std::size_t count) {
  const std::lock_guard<std::mutex> lock(iMutex);
  const std::size_t before = iFromPeer.size();
  iFromPeer.append(bytes, count);
  if (iSpoilt >= before && iSpoilt - before < count) {
    bytes[iSpoilt - before] = static_cast<char>(bytes[iSpoilt - before] ^ 1);
  }
}

void PeerLine::Move(int from, int to, const std::function<void(char* bytes, std::size_t count)>& look) {
  Pace pace(iBaud);
  char bytes[4096];
  for (;;) {
    if (!IsReady(from, POLLIN, 0)) {
      if (!Await(from, POLLIN)) {
        return;
      }
      pace.LineWasIdle();
    }
    const ssize_t result = read(from, bytes, pace.MostAtOnce());
    if (result <= 0) {
      return;
    }
    const auto count = static_cast<std::size_t>(result);
    look(bytes, count);
    pace.Carry(count);
    if (!WriteAll(to, bytes, count)) {
      return;
    }
  }
}

bool PeerLine::WriteAll(int to, const char* bytes, std::size_t count) const {
  while (count > 0) {
    if (!Await(to, POLLOUT)) {
      return false;
    }
    const ssize_t taken =
        to == iMaster.Get() ? write(to, bytes, count) : send(to, bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken == -1 && errno != EAGAIN) {
      return false;
    }
    const auto advance = static_cast<std::size_t>(std::max<ssize_t>(taken, 0));
    bytes += advance;
    count -= advance;
  }
  return true;
}

bool PeerLine::Await(int descriptor, short event) const {
  while (!iEnding) {
    if (IsReady(descriptor, event, kPollSlice_ms)) {
      return true;
    }
  }
  return false;
}
