// What the POSIX sources share about file descriptors.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

/// Repeats a system call for as long as a signal interrupts it, and returns its result.
template <typename TCall>
auto RetryInterrupted(TCall call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

/// Owns an open file descriptor, or none.
class CDescriptor {
 public:
  explicit CDescriptor(int descriptor = -1) : iDescriptor(descriptor) {}
  CDescriptor(CDescriptor&& other) noexcept : iDescriptor(std::exchange(other.iDescriptor, -1)) {}
  CDescriptor& operator=(CDescriptor&&) = delete;
  ~CDescriptor() { Close(); }

  bool IsOpen() const { return iDescriptor != -1; }
  int Get() const { return iDescriptor; }

  /// Takes over another one instead.
  void Reset(int descriptor) {
    Close();
    iDescriptor = descriptor;
  }

  /// Closes it now. Returns 0, or -1 when the system reports that written data was lost. Does nothing when
  /// there is none.
  int Close() {
    if (!IsOpen()) {
      return 0;
    }
    // An interrupted close has closed all the same, and trying again could hit somebody else's descriptor.
    const int result = ::close(std::exchange(iDescriptor, -1));
    return result == -1 && errno != EINTR ? -1 : 0;
  }

 private:
  int iDescriptor;
};
