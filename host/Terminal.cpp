#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "OutputFile.h"

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
  return {redraws, redraws && Variable("NO_COLOR").empty(), isatty(STDERR_FILENO) != 0, Columns};
}

int HelpColumns() {
  const std::string_view wanted = Variable("COLUMNS");
  int columns = 0;
  std::from_chars(wanted.data(), wanted.data() + wanted.size(), columns);
  return columns > 0 ? columns : Columns();
}

// Whoever closed a stream is told of what is lost with it, as of any other that takes nothing.
void HoldStandardStreams() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/full", O_RDWR);
    descriptor = descriptor < 0 ? open("/dev/null", O_RDWR) : descriptor;
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

PatientOutput::PatientOutput() : iBefore(std::cout.rdbuf(this)) {
  setp(iBytes.data(), iBytes.data() + iBytes.size());
}

PatientOutput::~PatientOutput() {
  std::cout.flush();
  std::cout.rdbuf(iBefore);
}

int PatientOutput::sync() {
  const std::string_view bytes(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  setp(iBytes.data(), iBytes.data() + iBytes.size());
  return WriteAll(STDOUT_FILENO, bytes) ? 0 : -1;
}

PatientOutput::int_type PatientOutput::overflow(int_type letter) {
  const bool hasRoom = sync() == 0 && !traits_type::eq_int_type(letter, traits_type::eof());
  return hasRoom ? sputc(traits_type::to_char_type(letter)) : traits_type::eof();
}

PatientErrors::PatientErrors() : iBefore(std::cerr.rdbuf(this)), iTiedBefore(std::cerr.tie(nullptr)) {}

PatientErrors::~PatientErrors() {
  std::cerr.rdbuf(iBefore);
  std::cerr.tie(iTiedBefore);
}

std::streamsize PatientErrors::xsputn(const char* text, std::streamsize size) {
  return WriteAll(STDERR_FILENO, {text, static_cast<std::size_t>(size)}) ? size : 0;
}

PatientErrors::int_type PatientErrors::overflow(int_type letter) {
  const char text = traits_type::to_char_type(letter);
  return xsputn(&text, 1) == 1 ? letter : traits_type::eof();
}

bool IsReaderGone(int descriptor) {
  pollfd reader = {descriptor, 0, 0};
  return poll(&reader, 1, 0) == 1 && (reader.revents & (POLLERR | POLLHUP)) != 0;
}

bool FlushStandardOutput() {
  return (std::cout << std::flush).good() || IsReaderGone(STDOUT_FILENO);
}

}  // namespace host
