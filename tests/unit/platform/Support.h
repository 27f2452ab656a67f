// What the platform's tests share: a pseudo-terminal, a sink that remembers.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "Logging.h"

/// A pseudo-terminal: the test holds the master, the port under test opens the slave by its name.
class Pty {
 public:
  Pty();

  const std::string& Name() const { return iName; }
  int Master() const { return iMaster.Get(); }
  /// What remains to a program when the adapter is pulled out.
  void Unplug() { iMaster.Close(); }

  void Send(const std::string& bytes);
  /// Waits up to two seconds for `count` bytes and returns what came.
  std::string Receive(std::size_t count);

 private:
  CDescriptor iMaster;
  std::string iName;
};

/// Takes the place of the log's sink, with every level on, for as long as it lives.
class LogCapture : public logging::ISink {
 public:
  struct Line {
    logging::TLevel level;
    logging::TModule module;
    std::string message;
  };

  explicit LogCapture(logging::TLevel lowest = logging::EInterface);
  ~LogCapture() override;

  void Write(const logging::TLine& line) override;

  std::vector<Line> Lines() const;
  /// The only line at Error, or what is wrong with there being one.
  std::string OnlyError() const;

 private:
  logging::ISink* iFormer;
  mutable std::mutex iMutex;
  std::vector<Line> iLines;
};

/// The driver of one device, as far as it is written to. While one lives, it is told the size of each write
/// to the device and returns how many bytes go on to the real driver, or an error number below zero. Any
/// thread.
class WriteDouble {
 public:
  using Answer = std::function<int(std::size_t size)>;

  WriteDouble(const std::string& device, Answer answer);
  ~WriteDouble();
};

/// While one lives, remembers how many bytes each write to one device has handed to its driver.
class WatchedWrites {
 public:
  explicit WatchedWrites(const std::string& device);
  ~WatchedWrites();

  std::vector<std::size_t> Sizes() const;
};

/// While one lives, each write of the process takes a few bytes only, and every second one is interrupted
/// first.
class HesitantWrites {
 public:
  HesitantWrites();
  ~HesitantWrites();
};

// ThreadSanitizer does not let the child of a process with threads make one, and AddressSanitizer's own locks
// may be held by a thread that the child does not have.
#if defined(UNDER_THREAD_SANITIZER) || defined(UNDER_ADDRESS_SANITIZER)
#define SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE() \
  GTEST_SKIP() << "a sanitizer's process with threads may not divide"
#else
#define SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE() static_cast<void>(0)
#endif

/// Runs `body` in a child process and returns its result, 0..255; -1 when the child did not end by itself.
int InChild(const std::function<int()>& body);

double SecondsOf(const std::function<void()>& body);
