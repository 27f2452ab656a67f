#include "Screen.h"

namespace host {

namespace {

constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

// Flushed at once: a line that waits in a buffer while the device is updated helps nobody.
void Screen::Print(std::ostream& stream, const std::string& lines) {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (iBar.empty()) {
    stream << lines << std::flush;
    return;
  }
  iOut << kClearLine << std::flush;
  stream << lines << std::flush;
  iOut << kClearLine << iBar << std::flush;
}

void Screen::ShowBar(const std::string& bar) {
  const std::lock_guard<std::mutex> lock(iMutex);
  iBar = bar;
  iOut << kClearLine << iBar << std::flush;
}

void Screen::LeaveBar() {
  const std::lock_guard<std::mutex> lock(iMutex);
  if (!iBar.empty()) {
    iBar.clear();
    iOut << std::endl;
  }
}

int ScreenStream::sync() {
  iScreen.Print(iStream, str());
  str("");
  return iStream ? 0 : -1;
}

}  // namespace host
