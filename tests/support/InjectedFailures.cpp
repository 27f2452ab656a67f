#include "InjectedFailures.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <utility>

namespace {

thread_local int mallocs_to_failure = 0;
thread_local int fwrites_to_failure = 0;
thread_local int creations_to_failure = 0;
thread_local std::size_t last_malloc_size = 0;
std::atomic<int> live_storage{0};
std::atomic<int> created{0};
std::atomic<int> joined{0};

std::function<void()>& Hook() {
  static std::function<void()> hook;
  return hook;
}

// Whether this is the call that was to fail.
bool CountsDownToZero(int& calls) {
  return calls > 0 && --calls == 0;
}

}  // namespace

namespace injected_failures {

void FailMalloc(int n) {
  mallocs_to_failure = n;
}

void FailFwrite(int n) {
  fwrites_to_failure = n;
}

void FailPthreadCreate(int n) {
  creations_to_failure = n;
}

void AfterPthreadCreate(std::function<void()> hook) {
  Hook() = std::move(hook);
}

int LiveStorage() {
  return live_storage;
}

std::size_t LastMallocSize() {
  return last_malloc_size;
}

int ThreadsCreated() {
  return created;
}

int ThreadsJoined() {
  return joined;
}

void Reset() {
  mallocs_to_failure = 0;
  fwrites_to_failure = 0;
  creations_to_failure = 0;
  Hook() = nullptr;
  created = 0;
  joined = 0;
}

}  // namespace injected_failures

// The names are the linker's: --wrap=malloc sends calls of malloc to __wrap_malloc and calls of __real_malloc
// to malloc.
extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* storage);
std::size_t __real_fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* file);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);

void* __wrap_malloc(std::size_t size) {
  last_malloc_size = size;
  void* const storage = CountsDownToZero(mallocs_to_failure) ? nullptr : __real_malloc(size);
  live_storage += storage != nullptr ? 1 : 0;
  return storage;
}

void __wrap_free(void* storage) {
  live_storage -= storage != nullptr ? 1 : 0;
  __real_free(storage);
}

std::size_t __wrap_fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* file) {
  return CountsDownToZero(fwrites_to_failure) ? 0 : __real_fwrite(data, size, count, file);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
  if (CountsDownToZero(creations_to_failure)) {
    return EAGAIN;
  }
  const int result = __real_pthread_create(thread, attributes, entry, argument);
  if (result == 0) {
    ++created;
    if (Hook()) {
      Hook()();
    }
  }
  return result;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
  const int outcome = __real_pthread_join(thread, result);
  joined += outcome == 0 ? 1 : 0;
  return outcome;
}

}  // extern "C"
