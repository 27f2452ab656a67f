#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A program as a process: what it prints on both outputs is collected, every wait is bounded, and it is
/// killed when the object goes, or the thread that made it ends.
class Process {
 public:
  /// `program` is a path; `environment` holds NAME=VALUE entries to add. `line`, unless it is -1, becomes its
  /// standard input and output, and only what it prints on the standard error is collected.
  Process(const std::string& program, std::vector<std::string> arguments,
          const std::vector<std::string>& environment = {}, int line = -1);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Reads until the output holds `text`, at most `limit_ms`. Whether it came.
  bool WaitForOutput(const std::string& text, int limit_ms = 20'000);

  /// Reads until the program ends. Its exit status; 1000 + signal when it was killed; -1, and it is killed,
  /// when the limit passes.
  int WaitForEnd(int limit_ms = 60'000);

  void Signal(int signal) const;

  /// Everything printed so far.
  const std::string& Output() const { return iOutput; }

 private:
  bool ReadSome(int limit_ms);

  pid_t iPid;
  int iPipe;
  std::string iOutput;
};
