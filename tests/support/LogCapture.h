#pragma once

#include <string>
#include <vector>

#include "Logging.h"

/// Takes the place of the log's sink while it lives and keeps every line of every level. A line that is not
/// of its room's module fails the test.
class LogCapture : public logging::ISink {
 public:
  struct Line {
    logging::TLevel level;
    logging::TModule module;
    std::string function;  ///< class and name, without result and parameters
    std::string file;
    int line;
    std::string message;
  };

  LogCapture();
  ~LogCapture() override;
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void Write(const logging::TLine& line) override;

  /// All lines so far. Call it while no other thread logs.
  const std::vector<Line>& Lines() const { return iLines; }

  /// "Info (Sending command wr 1000)": the lines that say something; entry lines without a text are left out.
  std::vector<std::string> Messages() const;

  /// The same from `lowest` up.
  std::vector<std::string> Messages(logging::TLevel lowest) const;

  /// "Interface CXModem::SendPacket ()": every line with the function that wrote it.
  std::vector<std::string> Trace() const;

  void Clear() { iLines.clear(); }

 private:
  std::vector<Line> iLines;
  logging::ISink* iPrevious;
};
