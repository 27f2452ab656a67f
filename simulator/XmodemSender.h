#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "simulator/Micros.h"
#include "simulator/Xmodem.h"

namespace simulator {

struct SenderOptions {
  Micros start_patience = 30 * kSecond;  ///< Wait for the host's start with no byte coming; kNever: for ever.
  Micros reply_wait =
      6 * kSecond;              ///< Then what was sent is repeated; longer than the host waits for a byte.
  bool deaf_to_cancel = false;  ///< While waiting for the start, CAN means nothing.
  bool repeat_ack = false;      ///< While waiting for the start, an EOT is one whose ACK was lost.
  int damage_every = 0;         ///< Every n-th block goes out with a wrong CRC first; 0: none.
};

/// The sending half of a bootloader's XMODEM: texts, zero-padded to whole blocks of 1024 bytes while more
/// than 128 remain, else of 128. Fed byte by byte, without a clock of its own; serves any number of
/// transfers.
class XmodemSender {
 public:
  static constexpr int kMaxReplyWaits = 5;
  static constexpr int kMaxErrors = 10;

  /// `output`, to which bytes for the host are appended, must outlive the sender.
  explicit XmodemSender(std::vector<std::uint8_t>& output);

  /// Begins a transfer of `text` and waits for the host to ask for it; `host_asks`: it has done so already.
  void Start(const std::string& text, const SenderOptions& options, bool host_asks, Micros now);
  /// Takes one byte from the line.
  void Receive(std::uint8_t byte, Micros now);
  /// Does what is due at `now`; nothing if NextTimer() lies later.
  void Advance(Micros now);
  /// When Advance() has something to do if no byte comes before.
  Micros NextTimer() const { return iTimer; }
  TransferResult Result() const { return iResult; }
  /// True once the host has asked for the text.
  bool Begun() const { return iBegun; }

 private:
  enum class State { kWaitStart, kWaitReply, kWaitEndReply, kEnded };

  void Send(std::uint8_t byte) { iOutput.push_back(byte); }
  void OnStartByte(std::uint8_t byte, Micros now);
  void OnReply(std::uint8_t byte, Micros now);
  void OnEndReply(std::uint8_t byte, Micros now);
  void Begin(Trailer trailer, Micros now);
  std::size_t BlockSize() const;
  void SendBlock(Micros now);
  void SendEot(Micros now);
  void OnAck(Micros now);
  void OnNak(Micros now);
  void OnSilence(Micros now);
  void Await(State state, Micros now);
  bool IsSecondCan(std::uint8_t byte);
  void End(TransferResult result);

  std::vector<std::uint8_t>& iOutput;
  SenderOptions iOptions;
  State iState = State::kEnded;
  TransferResult iResult = TransferResult::kComplete;
  Micros iTimer = kNever;
  std::string iText;
  std::size_t iOffset = 0;
  std::uint8_t iNumber = 1;
  Trailer iTrailer = Trailer::kCrc;
  bool iBegun = false;
  bool iCanSeen = false;
  int iBlocks = 0;
  int iErrors = 0;
  int iSilences = 0;
};

}  // namespace simulator
