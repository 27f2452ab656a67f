// A library to preload into a program: one call of the program or its libraries fails. FAILING_CALL holds
// its name, its number (from 1) and the error; when the call comes, the file FAILING_CALL_MARK appears. The
// error -9 kills the program instead.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Failure {
  char call[32] = "";
  unsigned n = 0;
  int error = 0;
};

Failure FromEnvironment() {
  Failure failure;
  const char* text = std::getenv("FAILING_CALL");
  if (text == nullptr || std::sscanf(text, "%31s %u %d", failure.call, &failure.n, &failure.error) != 3) {
    std::abort();
  }
  return failure;
}

void LeaveMark() {
  const char* mark = std::getenv("FAILING_CALL_MARK");
  syscall(SYS_close, syscall(SYS_openat, AT_FDCWD, mark, O_CREAT | O_WRONLY, 0600));
}

// Whether this is the call that is to fail; errno is set then.
bool ShallFail(const char* call) {
  static const Failure failure = FromEnvironment();
  static std::atomic<unsigned> calls{0};
  if (std::strcmp(call, failure.call) != 0 || ++calls != failure.n) {
    return false;
  }
  LeaveMark();
  if (failure.error == -SIGKILL) {
    syscall(SYS_kill, getpid(), SIGKILL);
  }
  errno = failure.error;
  return true;
}

// The function that would have been called without this library.
template <typename TFunction>
TFunction* Next(TFunction*, const char* name) {
  return reinterpret_cast<TFunction*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

std::FILE* fopen(const char* path, const char* mode) {
  return ShallFail("fopen") ? nullptr : Next(&fopen, "fopen")(path, mode);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return ShallFail("open") ? -1
                           : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return ShallFail("ioctl") ? -1 : static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

int flock(int descriptor, int operation) noexcept {
  return ShallFail("flock") ? -1 : static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

ssize_t read(int descriptor, void* buffer, std::size_t size) {
  pollfd input{descriptor, POLLIN, 0};
  const bool brings = Next(&poll, "poll")(&input, 1, 0) == 1;
  return brings && ShallFail("read") ? -1 : Next(&read, "read")(descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* buffer, std::size_t size) {
  return ShallFail("write") ? -1 : Next(&write, "write")(descriptor, buffer, size);
}

int poll(pollfd* descriptors, nfds_t count, int limit_ms) {
  const int result = Next(&poll, "poll")(descriptors, count, limit_ms);
  return result > 0 && ShallFail("poll") ? -1 : result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
  return ShallFail("pthread_create")
             ? errno
             : Next(&pthread_create, "pthread_create")(thread, attributes, entry, argument);
}

}  // extern "C"
