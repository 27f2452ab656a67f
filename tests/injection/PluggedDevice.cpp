#include "PluggedDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "FailingCalls.h"
#include "LineTime.h"
#include "SimulatedDevices.h"

namespace {

// How long the line must be quiet for time to go on.
constexpr int kQuiet_ms = 1;

void Require(bool good) {
  if (!good) {
    throw std::runtime_error("no pseudo-terminal; is /dev/pts mounted?");
  }
}

}  // namespace

PluggedDevice::PluggedDevice() : iMaster(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
  char name[64] = "";
  Require(iMaster != -1 && grantpt(iMaster) == 0 && unlockpt(iMaster) == 0 &&
          ptsname_r(iMaster, name, sizeof name) == 0);
  iPort = name;
  // Held open so that the line stays up, and raw, while the host closes and opens the port again.
  iSlave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  Require(iSlave != -1 && tcgetattr(iSlave, &settings) == 0);
  cfmakeraw(&settings);
  Require(tcsetattr(iSlave, TCSANOW, &settings) == 0);
  iThread = std::thread([this] { Serve(); });
}

PluggedDevice::~PluggedDevice() {
  iEnding = true;
  iThread.join();
  close(iSlave);
  close(iMaster);
}

void PluggedDevice::Plug(const std::string& kind) {
  const std::lock_guard<std::mutex> lock(iMutex);
  tcflush(iSlave, TCIOFLUSH);
  tcflush(iMaster, TCIOFLUSH);
  iDevices = simulator::MakeDevices(kind);
  simulator::LineOptions unpaced;
  unpaced.baud = 0;
  iLine = std::make_unique<simulator::Line>(*iDevices, unpaced, line_time::Now_us());
  iBytesFromHost = 0;
}

std::vector<std::uint8_t> PluggedDevice::Flash() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iDevices->At(0).Flash().Contents();
}

std::uint64_t PluggedDevice::BytesFromHost() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iBytesFromHost;
}

void PluggedDevice::Serve() {
  failing_calls::ExemptThisThread();
  while (!iEnding) {
    pollfd input{iMaster, POLLIN, 0};
    if (poll(&input, 1, kQuiet_ms) == 0) {
      line_time::LineIsQuiet();
    }
    Pump();
  }
}

void PluggedDevice::Pump() {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (iLine == nullptr) {
    return;
  }
  std::array<std::uint8_t, simulator::Wire::kCapacity> bytes;
  const simulator::Micros now = line_time::Now_us();
  const ssize_t sent = read(iMaster, bytes.data(), iLine->HostWriteSpace());
  if (sent > 0) {
    iBytesFromHost += static_cast<std::uint64_t>(sent);
    iLine->HostWrite(bytes.data(), static_cast<std::size_t>(sent), now);
  }
  const int answered = iLine->HostRead(bytes.data(), bytes.size(), now);
  // So little is under way at a time that there is always room.
  if (answered > 0 && write(iMaster, bytes.data(), static_cast<std::size_t>(answered)) != answered) {
    throw std::runtime_error("the pseudo-terminal has no room");
  }
}
