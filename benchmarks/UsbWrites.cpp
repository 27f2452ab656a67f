// A USB adapter, preloaded into a sender: each write to a terminal costs a transfer of 125 us of its own, in
// which the sender does not get on.
#include <dlfcn.h>
#include <unistd.h>

#include <chrono>

namespace {

constexpr std::chrono::microseconds kTransfer(125);

}  // namespace

extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t count) {
  static const auto next = reinterpret_cast<decltype(&write)>(dlsym(RTLD_NEXT, "write"));
  const ssize_t result = next(descriptor, bytes, count);
  if (isatty(descriptor) != 0) {
    // A sleep would take longer than was asked for.
    for (const auto end = std::chrono::steady_clock::now() + kTransfer;
         std::chrono::steady_clock::now() < end;) {
    }
  }
  return result;
}
