#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/Line.h"

namespace simulator {

using Bytes = std::vector<std::uint8_t>;

/// `count` copies of a byte, or a pattern in which every block differs from its neighbours.
Bytes Filled(std::size_t count, std::uint8_t value);
Bytes Pattern(std::size_t count);
Bytes operator+(Bytes left, const Bytes& right);
Bytes FromText(const std::string& text);
/// `data` with zeros up to whole blocks, as a host's transfer of it arrives.
Bytes PaddedToBlocks(Bytes data);

/// A host at the end of a line, in virtual time: jumps from event to event and does what a program would.
class ScriptedHost {
 public:
  static constexpr int kNothing = -1;
  static constexpr int kUnplugged = -2;

  explicit ScriptedHost(Line& line) : iLine(line) {}

  Micros Now() const { return iNow; }
  void Wait(Micros span);
  void Open() { iLine.HostDiscardInput(iNow); }
  void Write(const Bytes& bytes);
  /// The next byte, kNothing after `patience` or kUnplugged.
  int Read(Micros patience);
  /// Everything that arrives until nothing has come for `quiet`.
  Bytes ReadAll(Micros quiet);

  /// Sends data as one transfer. False when the device cancels, is silent or rejects a block eleven times.
  bool Send(const Bytes& data);
  bool Send(const std::string& text) { return Send(FromText(text)); }
  /// Receives one transfer; nothing when the device cancels or is silent.
  std::optional<Bytes> Receive();
  /// Receives one transfer up to its first zero byte; "(none)" when it fails.
  std::string ReceiveText();
  /// Sends a command and returns the answer.
  std::string Command(const std::string& text);
  std::string CommandWithFile(const std::string& text, const Bytes& file);
  /// The whole CAN dialogue with addresses 1000 and 8000. Returns the last answer that came.
  std::string UpdateCan(const Bytes& loader, const Bytes& image);

  /// The start character of the last Send().
  int StartCharacter() const { return iStartCharacter; }
  /// NAKs seen by the last Send().
  int Naks() const { return iNaks; }

 private:
  int AwaitStart();
  int AwaitReply();
  bool SendBlock(std::uint8_t number, const Bytes& data);
  bool SendEot();
  int AwaitBlockStart(bool ask);
  bool ReceiveBlock(std::uint8_t start, Bytes& data);

  Line& iLine;
  Micros iNow = 0;
  int iStartCharacter = kNothing;
  int iNaks = 0;
};

}  // namespace simulator
