#include "Reclaimer.h"

#include <cstdio>
#include <set>

namespace {

struct Kept {
  std::set<void*> buffers;
  std::set<std::FILE*> files;
};

thread_local Kept* kept = nullptr;

}  // namespace

extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* buffer);
std::FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(std::FILE* file);

void* __wrap_malloc(std::size_t size);
void __wrap_free(void* buffer);
std::FILE* __wrap_fopen(const char* path, const char* mode);
int __wrap_fclose(std::FILE* file);

void* __wrap_malloc(std::size_t size) {
  void* buffer = __real_malloc(size);
  if (kept != nullptr && buffer != nullptr) {
    kept->buffers.insert(buffer);
  }
  return buffer;
}

void __wrap_free(void* buffer) {
  if (kept != nullptr) {
    kept->buffers.erase(buffer);
  }
  __real_free(buffer);
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
  std::FILE* file = __real_fopen(path, mode);
  if (kept != nullptr && file != nullptr) {
    kept->files.insert(file);
  }
  return file;
}

int __wrap_fclose(std::FILE* file) {
  if (kept != nullptr) {
    kept->files.erase(file);
  }
  return __real_fclose(file);
}

}  // extern "C"

namespace fuzz {

Reclaimer::Reclaimer() {
  kept = new Kept;
}

Reclaimer::~Reclaimer() {
  for (void* buffer : kept->buffers) {
    __real_free(buffer);
  }
  for (std::FILE* file : kept->files) {
    __real_fclose(file);
  }
  delete kept;
  kept = nullptr;
}

std::size_t Reclaimer::Buffers() const {
  return kept->buffers.size();
}

std::size_t Reclaimer::Files() const {
  return kept->files.size();
}

}  // namespace fuzz
