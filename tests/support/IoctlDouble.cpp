#include "IoctlDouble.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <utility>

namespace {

IoctlDouble::Answer& CurrentAnswer() {
  static IoctlDouble::Answer answer;
  return answer;
}

}  // namespace

// The executable's comes before the C library's, for the platform's shared library too.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  int result = static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
  if (CurrentAnswer()) {
    CurrentAnswer()(request, argument, result);
  }
  return result;
}

IoctlDouble::IoctlDouble(Answer answer) {
  CurrentAnswer() = std::move(answer);
}

IoctlDouble::~IoctlDouble() {
  CurrentAnswer() = nullptr;
}

OneSpeedDriver::OneSpeedDriver(unsigned speed)
    : iDouble([this, speed](unsigned long request, void* argument, int&) {
        iIsSet = iIsSet || request == TCSETS2;
        if (request == TCGETS2 && iIsSet) {
          static_cast<termios2*>(argument)->c_ospeed = speed;
        }
      }) {}
