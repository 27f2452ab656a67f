#include "Support.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>

namespace {

std::atomic<bool> writesHesitate{false};

// What tests do to the writes to one device.
struct DeviceWrites {
  std::mutex mutex;
  dev_t doubled = 0;
  WriteDouble::Answer answer;
  dev_t watched = 0;
  std::vector<std::size_t> sizes;
};

DeviceWrites& CurrentWrites() {
  // Never destroyed: a flusher may write while the process ends.
  static auto* const writes = new DeviceWrites;
  return *writes;
}

dev_t DeviceOf(const std::string& name) {
  struct stat status {};
  return stat(name.c_str(), &status) == 0 ? status.st_rdev : 0;
}

ssize_t WriteToDevice(dev_t device, int descriptor, const void* bytes, size_t size) {
  DeviceWrites& writes = CurrentWrites();
  std::unique_lock<std::mutex> lock(writes.mutex);
  if (device != writes.doubled && device != writes.watched) {
    // It may wait, be it for another thread that writes.
    lock.unlock();
    return syscall(SYS_write, descriptor, bytes, size);
  }
  if (device == writes.doubled && writes.answer) {
    const int answer = writes.answer(size);
    if (answer < 0) {
      errno = -answer;
      return -1;
    }
    size = static_cast<size_t>(answer);
  }
  const ssize_t taken = syscall(SYS_write, descriptor, bytes, size);
  if (device == writes.watched && taken > 0) {
    writes.sizes.push_back(static_cast<std::size_t>(taken));
  }
  return taken;
}

void Require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(what);
  }
}

}  // namespace

// The executable's comes before the C library's, for the platform's shared library too.
extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
  static std::atomic<unsigned> calls{0};
  if (writesHesitate && calls++ % 2 == 0) {
    errno = EINTR;
    return -1;
  }
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode)) {
    return WriteToDevice(status.st_rdev, descriptor, bytes, size);
  }
  return syscall(SYS_write, descriptor, bytes, writesHesitate ? std::min<size_t>(size, 7) : size);
}

WriteDouble::WriteDouble(const std::string& device, Answer answer) {
  const std::lock_guard<std::mutex> lock(CurrentWrites().mutex);
  CurrentWrites().doubled = DeviceOf(device);
  CurrentWrites().answer = std::move(answer);
}

WriteDouble::~WriteDouble() {
  const std::lock_guard<std::mutex> lock(CurrentWrites().mutex);
  CurrentWrites().doubled = 0;
  CurrentWrites().answer = nullptr;
}

WatchedWrites::WatchedWrites(const std::string& device) {
  const std::lock_guard<std::mutex> lock(CurrentWrites().mutex);
  CurrentWrites().watched = DeviceOf(device);
  CurrentWrites().sizes.clear();
}

WatchedWrites::~WatchedWrites() {
  const std::lock_guard<std::mutex> lock(CurrentWrites().mutex);
  CurrentWrites().watched = 0;
}

std::vector<std::size_t> WatchedWrites::Sizes() const {
  const std::lock_guard<std::mutex> lock(CurrentWrites().mutex);
  return CurrentWrites().sizes;
}

HesitantWrites::HesitantWrites() {
  writesHesitate = true;
}

HesitantWrites::~HesitantWrites() {
  writesHesitate = false;
}

Pty::Pty() : iMaster(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  char name[64] = "";
  Require(iMaster.IsOpen() && grantpt(Master()) == 0 && unlockpt(Master()) == 0 &&
              ptsname_r(Master(), name, sizeof name) == 0,
          "no pseudo-terminal");
  iName = name;
}

void Pty::Send(const std::string& bytes) {
  Require(write(Master(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "master full");
}

std::string Pty::Receive(std::size_t count) {
  std::string bytes;
  pollfd input{Master(), POLLIN, 0};
  while (bytes.size() < count && poll(&input, 1, 2000) == 1) {
    char block[4096];
    const ssize_t got = read(Master(), block, sizeof block);
    if (got <= 0) {
      break;
    }
    bytes.append(block, static_cast<std::size_t>(got));
  }
  return bytes;
}

// In the body: from the moment it is the sink, other threads may write to what is made by then.
LogCapture::LogCapture(logging::TLevel lowest) {
  iFormer = logging::SetSink(this);
  logging::SetLowestLevel(lowest);
}

LogCapture::~LogCapture() {
  logging::SetSink(iFormer);
  logging::SetLowestLevel(logging::EWarning);
}

void LogCapture::Write(const logging::TLine& line) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iLines.push_back({line.level, line.module, std::string(line.message)});
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iLines;
}

std::string LogCapture::OnlyError() const {
  std::string error = "(no line at Error)";
  int count = 0;
  for (const Line& line : Lines()) {
    if (line.level == logging::EError && line.module == logging::Platform) {
      error = ++count == 1 ? line.message : error + " AND " + line.message;
    }
  }
  return error;
}

int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  RetryInterrupted([&] { return waitpid(child, &status, 0); });
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double SecondsOf(const std::function<void()>& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
