#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace host {

namespace {

constexpr int kDefaultColumns = 80;

std::string_view Variable(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets variables
  return value == nullptr ? "" : value;
}

int Columns() {
  winsize size = {};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kDefaultColumns;
}

}  // namespace

Look LookOfStandardOutput() {
  const std::string_view terminal = Variable("TERM");
  const bool redraws = isatty(STDOUT_FILENO) != 0 && !terminal.empty() && terminal != "dumb";
  return {redraws, redraws && Variable("NO_COLOR").empty(), Columns};
}

// Whoever closed a stream is told of what is lost with it, as of any other that takes nothing.
void HoldStandardStreams() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/full", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

bool FlushStandardOutput() {
  pollfd reader = {STDOUT_FILENO, 0, 0};
  const bool isGone = poll(&reader, 1, 0) == 1 && (reader.revents & POLLERR) != 0;
  return (std::cout << std::flush).good() || isGone;
}

}  // namespace host
