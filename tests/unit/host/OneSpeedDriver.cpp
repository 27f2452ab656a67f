#include "OneSpeedDriver.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>

namespace {

std::atomic<unsigned> onlySpeed{0};
std::atomic<bool> isSet{false};

}  // namespace

// The executable's comes before the C library's, for the platform's shared library too.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  const int result = static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
  isSet = isSet || (onlySpeed != 0 && request == TCSETS2);
  if (request == TCGETS2 && isSet) {
    static_cast<termios2*>(argument)->c_ospeed = onlySpeed;
  }
  return result;
}

OneSpeedDriver::OneSpeedDriver(unsigned speed) {
  onlySpeed = speed;
}

OneSpeedDriver::~OneSpeedDriver() {
  onlySpeed = 0;
  isSet = false;
}
