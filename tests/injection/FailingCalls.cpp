#include "FailingCalls.h"

#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

namespace {

using failing_calls::Call;

struct State {
  std::mutex mutex;
  Call call = Call::kNone;
  int error = 0;
  unsigned callsToFailure = 0;
  bool hasFailed = false;
  bool hesitant = false;
  bool hesitated = false;
  std::set<std::FILE*> files;
  std::string standardError;
};

// Never destroyed: the platform's threads go on until the process ends.
State& Present() {
  static auto* const state = new State;
  return *state;
}

thread_local bool exempt = false;

std::atomic<std::size_t> running_threads{0};

struct Start {
  void* (*entry)(void*);
  void* argument;
};

void* RunCounted(void* start) {
  const std::unique_ptr<Start> own(static_cast<Start*>(start));
  void* const result = own->entry(own->argument);
  --running_threads;
  return result;
}

// Whether this is the call that was to fail; errno is set then.
bool ShallFail(Call call) {
  if (exempt) {
    return false;
  }
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  if (state.callsToFailure == 0 || state.call != call || --state.callsToFailure != 0) {
    return false;
  }
  state.hasFailed = true;
  errno = state.error;
  return true;
}

int MinusOneOrNothing() {
  return errno == failing_calls::kNothing ? 0 : -1;
}

bool IsWithoutRoom() {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.hesitated = state.hesitant && !exempt && !state.hesitated;
  return state.hesitated;
}

}  // namespace

namespace failing_calls {

void Arm(Call call, int error, unsigned n) {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.call = call;
  state.error = error;
  state.callsToFailure = n;
  state.hasFailed = false;
}

bool Disarm() {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.callsToFailure = 0;
  return state.hasFailed;
}

void SetHesitantDriver(bool hesitant) {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.hesitant = hesitant;
}

void ExemptThisThread() {
  exempt = true;
}

std::size_t OpenFiles() {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  return state.files.size();
}

void CloseOpenFiles() {
  const auto files = [] {
    State& state = Present();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.files;
  }();
  std::for_each(files.begin(), files.end(), [](std::FILE* file) { std::fclose(file); });
}

std::size_t RunningThreads() {
  return running_threads;
}

std::string TakeStandardError() {
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  return std::exchange(state.standardError, {});
}

}  // namespace failing_calls

// The names are the linker's: --wrap=read sends calls of read to __wrap_read and calls of __real_read to
// read.
extern "C" {

void* __real_malloc(std::size_t size);
std::FILE* __real_fopen(const char* path, const char* mode);
std::size_t __real_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file);
std::size_t __real_fwrite(const void* buffer, std::size_t size, std::size_t count, std::FILE* file);
int __real_fseek(std::FILE* file, long offset, int origin);
long __real_ftell(std::FILE* file);
int __real_fclose(std::FILE* file);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_stat(const char* path, struct stat* status);
int __real_fstat(int descriptor, struct stat* status);
int __real_open(const char* path, int flags, ...);
int __real_close(int descriptor);
int __real_flock(int descriptor, int operation);
int __real_ioctl(int descriptor, unsigned long request, ...);
ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
ssize_t __real_write(int descriptor, const void* buffer, std::size_t size);
int __real_poll(pollfd* descriptors, nfds_t count, int limit_ms);

void* __wrap_malloc(std::size_t size) {
  return ShallFail(Call::kMalloc) ? nullptr : __real_malloc(size);
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
  if (ShallFail(Call::kFopen)) {
    return nullptr;
  }
  std::FILE* file = __real_fopen(path, mode);
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  if (file != nullptr) {
    state.files.insert(file);
  }
  return file;
}

std::size_t __wrap_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  return ShallFail(Call::kFread) ? 0 : __real_fread(buffer, size, count, file);
}

std::size_t __wrap_fwrite(const void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  if (ShallFail(Call::kFwrite)) {
    return 0;
  }
  if (file != stderr) {
    return __real_fwrite(buffer, size, count, file);
  }
  State& state = Present();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.standardError.append(static_cast<const char*>(buffer), size * count);
  return count;
}

int __wrap_fseek(std::FILE* file, long offset, int origin) {
  return ShallFail(Call::kFseek) ? -1 : __real_fseek(file, offset, origin);
}

long __wrap_ftell(std::FILE* file) {
  return ShallFail(Call::kFtell) ? -1 : __real_ftell(file);
}

// What cannot be closed without an error is closed all the same.
int __wrap_fclose(std::FILE* file) {
  State& state = Present();
  {
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.files.erase(file);
  }
  const int result = __real_fclose(file);
  return ShallFail(Call::kFclose) ? EOF : result;
}

int __wrap_close(int descriptor) {
  const int result = __real_close(descriptor);
  return ShallFail(Call::kClose) ? -1 : result;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
  if (ShallFail(Call::kPthreadCreate)) {
    return errno;
  }
  auto start = std::make_unique<Start>(Start{entry, argument});
  ++running_threads;
  const int error = __real_pthread_create(thread, attributes, RunCounted, start.get());
  if (error == 0) {
    start.release();
  } else {
    --running_threads;
  }
  return error;
}

int __wrap_stat(const char* path, struct stat* status) {
  return ShallFail(Call::kStat) ? -1 : __real_stat(path, status);
}

int __wrap_fstat(int descriptor, struct stat* status) {
  return ShallFail(Call::kFstat) ? -1 : __real_fstat(descriptor, status);
}

int __wrap_open(const char* path, int flags, ...) {
  if (ShallFail(Call::kOpen)) {
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return __real_open(path, flags, mode);
}

int __wrap_flock(int descriptor, int operation) {
  return ShallFail(Call::kFlock) ? -1 : __real_flock(descriptor, operation);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  if (ShallFail(Call::kIoctl)) {
    return -1;
  }
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return __real_ioctl(descriptor, request, argument);
}

ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
  pollfd input{descriptor, POLLIN, 0};
  if (!exempt && __real_poll(&input, 1, 0) == 1 && ShallFail(Call::kRead)) {
    return MinusOneOrNothing();
  }
  return __real_read(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size) {
  if (ShallFail(Call::kWrite)) {
    return MinusOneOrNothing();
  }
  if (IsWithoutRoom()) {
    errno = EAGAIN;
    return -1;
  }
  return __real_write(descriptor, buffer, size);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int limit_ms) {
  const int result = __real_poll(descriptors, count, limit_ms);
  return result > 0 && ShallFail(Call::kPoll) ? MinusOneOrNothing() : result;
}

}  // extern "C"
