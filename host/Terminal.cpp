#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
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

}  // namespace host
