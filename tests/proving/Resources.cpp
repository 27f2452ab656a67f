#include "Resources.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using proving::resources::Call;

struct State {
  Call call = Call::kMalloc;
  std::uint32_t callsToFailure = 0;
  bool hasFailed = false;
  std::vector<void*> blocks;
  std::vector<std::FILE*> files;
};

State& Held() {
  static State state;
  return state;
}

bool ShallFail(Call call) {
  State& state = Held();
  if (state.callsToFailure == 0 || state.call != call || --state.callsToFailure != 0) {
    return false;
  }
  state.hasFailed = true;
  return true;
}

// Both names of the same function, of which a build with 64-bit offsets on a 32-bit processor uses the
// second.
template <typename TFunction>
std::FILE* Open(TFunction function, const char* path, const char* mode) {
  if (ShallFail(Call::kOpen)) {
    errno = EMFILE;
    return nullptr;
  }
  std::FILE* file = function(path, mode);
  if (file != nullptr) {
    Held().files.push_back(file);
  }
  return file;
}

template <typename T>
void Forget(std::vector<T*>& held, const void* gone) {
  const auto found = std::find(held.rbegin(), held.rend(), gone);
  if (found != held.rend()) {
    *found = held.back();
    held.pop_back();
  }
}

}  // namespace

// The names are the linker's: --wrap=malloc sends calls of malloc to __wrap_malloc and calls of __real_malloc
// to malloc.
extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* block);
std::FILE* __real_fopen(const char* path, const char* mode);
std::FILE* __real_fopen64(const char* path, const char* mode);
int __real_fclose(std::FILE* file);
std::size_t __real_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file);

void* __wrap_malloc(std::size_t size) {
  if (ShallFail(Call::kMalloc)) {
    return nullptr;
  }
  void* block = __real_malloc(size);
  Held().blocks.push_back(block);
  return block;
}

void __wrap_free(void* block) {
  Forget(Held().blocks, block);
  __real_free(block);
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
  return Open(__real_fopen, path, mode);
}

std::FILE* __wrap_fopen64(const char* path, const char* mode) {
  return Open(__real_fopen64, path, mode);
}

int __wrap_fclose(std::FILE* file) {
  Forget(Held().files, file);
  return __real_fclose(file);
}

std::size_t __wrap_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
  return ShallFail(Call::kRead) ? 0 : __real_fread(buffer, size, count, file);
}

}  // extern "C"

namespace proving::resources {

void FailNth(Call call, std::uint32_t n) {
  Held().call = call;
  Held().callsToFailure = n;
  Held().hasFailed = false;
}

bool HasFailed() {
  return Held().hasFailed;
}

std::size_t Blocks() {
  return Held().blocks.size();
}

std::size_t Files() {
  return Held().files.size();
}

void Reset() {
  State& state = Held();
  std::for_each(state.blocks.begin(), state.blocks.end(), __real_free);
  std::for_each(state.files.begin(), state.files.end(), __real_fclose);
  state.blocks.clear();
  state.files.clear();
  state.callsToFailure = 0;
}

bool ThreadShallFail() {
  return ShallFail(Call::kThread);
}

}  // namespace proving::resources
