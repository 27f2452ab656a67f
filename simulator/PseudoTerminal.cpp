#include "simulator/PseudoTerminal.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>
#include <system_error>

#include "simulator/Output.h"

namespace simulator {

namespace {

// Where a link leads; empty if the path is none.
std::string TargetOf(const std::string& link) {
  char buffer[PATH_MAX];
  const ssize_t size = readlink(link.c_str(), buffer, sizeof(buffer));
  return std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

// All pseudo-terminals are made through one file. A simulator holds a lock on one byte there for its link; it
// goes with the process however that ends, and stands for the link itself, not for its name.
struct flock LockFor(const std::string& link) {
  constexpr unsigned kDeviceShift = 20;
  struct stat status {};
  lstat(link.c_str(), &status);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  const std::uint64_t identity = status.st_ino ^ (status.st_dev << kDeviceShift);
  lock.l_start = static_cast<off_t>(identity & std::uint64_t{std::numeric_limits<off_t>::max()});
  lock.l_len = 1;
  return lock;
}

bool MakeRaw(int descriptor) {
  termios settings{};
  if (tcgetattr(descriptor, &settings) != 0) {
    return false;
  }
  cfmakeraw(&settings);
  return tcsetattr(descriptor, TCSANOW, &settings) == 0;
}

}  // namespace

PseudoTerminal::~PseudoTerminal() {
  Unplug();
  if (!iLink.empty() && TargetOf(iLink) == iName) {
    unlink(iLink.c_str());
  }
}

bool PseudoTerminal::Open() {
  iMaster = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  char name[PATH_MAX];
  bool opened = iMaster >= 0 && grantpt(iMaster) == 0 && unlockpt(iMaster) == 0 &&
                ptsname_r(iMaster, name, sizeof(name)) == 0;
  if (opened) {
    iName = name;
    // Held open so that the line stays up, and raw, while the host closes and opens the port again.
    iSlave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    opened = iSlave >= 0 && MakeRaw(iSlave);
  }
  if (!opened) {
    Complain(fmt::format("Cannot make a pseudo-terminal: {}. Is /dev/pts mounted?\n",
                         std::generic_category().message(errno)));
  }
  return opened;
}

bool PseudoTerminal::Link(const std::string& path) {
  if (IsInUse(path)) {
    Complain(fmt::format(
        "Cannot make the link {}: the simulator that made it still runs. End that one or choose another "
        "path for --link.\n",
        path));
    return false;
  }
  // One that an earlier run has left. Any other is somebody's own.
  if (TargetOf(path).rfind("/dev/pts/", 0) == 0) {
    unlink(path.c_str());
  }
  if (symlink(iName.c_str(), path.c_str()) != 0) {
    Complain(
        fmt::format("Cannot make the link {}: {}. Remove what is there or choose another path for --link.\n",
                    path, std::generic_category().message(errno)));
    return false;
  }
  iLink = path;
  struct flock lock = LockFor(path);
  fcntl(iMaster, F_OFD_SETLK, &lock);
  return true;
}

bool PseudoTerminal::IsInUse(const std::string& link) const {
  struct flock lock = LockFor(link);
  return !TargetOf(link).empty() && fcntl(iMaster, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

std::size_t PseudoTerminal::Read(std::uint8_t* buffer, std::size_t capacity) {
  const ssize_t count = read(iMaster, buffer, capacity);
  return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

void PseudoTerminal::Write(const std::uint8_t* data, std::size_t count) {
  while (count > 0) {
    const ssize_t written = write(iMaster, data, count);
    if (written <= 0) {
      return;
    }
    data += written;
    count -= static_cast<std::size_t>(written);
  }
}

void PseudoTerminal::LetGo() {
  close(iSlave);
  iSlave = -1;
}

bool PseudoTerminal::HostHasClosed() const {
  pollfd master{iMaster, 0, 0};
  return poll(&master, 1, 0) == 1 && (master.revents & POLLHUP) != 0;
}

void PseudoTerminal::Unplug() {
  for (int* descriptor : {&iMaster, &iSlave}) {
    if (*descriptor >= 0) {
      close(*descriptor);
      *descriptor = -1;
    }
  }
}

}  // namespace simulator
