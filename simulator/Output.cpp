#include "simulator/Output.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace simulator {

void Output::Say(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      iSaid = false;
      return;
    }
    text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
}

bool Output::IsSaid() const {
  if (!iSaid) {
    TellLoss();
  }
  return iSaid;
}

void TellLoss() {
  fmt::print(stderr, "bootloader-simulator: standard output could not be written. Is the disk full?\n");
}

}  // namespace simulator
