#include "simulator/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace simulator {

namespace {

// A pipe or a terminal that takes anything takes so much, so that writing it does not block.
constexpr std::size_t kPiece_bytes = 128;
constexpr int kPatience_ms = 1000;

/// Writes the beginning of the text, and takes that away from it. False if nothing can be written.
bool WritePiece(int descriptor, std::string_view& text) {
  const ssize_t count = write(descriptor, text.data(), std::min(text.size(), kPiece_bytes));
  text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  return count >= 0 || errno == EINTR || errno == EAGAIN;
}

}  // namespace

void Output::Say(std::string_view text) {
  while (!text.empty()) {
    if (!HasRoom() || !WritePiece(STDOUT_FILENO, text)) {
      iSaid = false;
      return;
    }
  }
}

bool Output::HasRoom() const {
  pollfd reader{STDOUT_FILENO, POLLOUT, 0};
  while (!iSignals.HaveCome()) {
    if (iSignals.Wait(&reader, 1, nullptr) > 0) {
      return true;
    }
  }
  return poll(&reader, 1, 0) > 0;
}

bool Output::IsSaid() const {
  if (!iSaid) {
    TellLoss();
  }
  return iSaid;
}

void Complain(std::string_view text) {
  pollfd reader{STDERR_FILENO, POLLOUT, 0};
  while (!text.empty() && poll(&reader, 1, kPatience_ms) > 0 && WritePiece(STDERR_FILENO, text)) {
  }
}

void TellLoss() {
  Complain("bootloader-simulator: standard output could not be written. Is the disk full?\n");
}

}  // namespace simulator
