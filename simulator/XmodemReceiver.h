#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "simulator/Micros.h"
#include "simulator/Xmodem.h"

namespace simulator {

/// Where a receiver puts the data of its blocks.
class BlockTaker {
 public:
  virtual ~BlockTaker() = default;

  /// Takes one block's data, padding included. `first` marks the first block of a transfer; it comes a second
  /// time when the sender begins anew, and what was taken before is void then. False: there is no room.
  virtual bool TakeBlock(const std::vector<std::uint8_t>& data, bool first) = 0;
};

struct ReceiverOptions {
  Trailer trailer = Trailer::kCrc;
  int max_solicitations = 10;       ///< Silent ones in a row before giving up; 0: for ever.
  Micros block_wait = 3 * kSecond;  ///< Then it asks for the block again.
  int nak_every = 0;                ///< Answer every n-th sound block of a transfer with NAK; 0: none.
  bool nak_first_eot = false;       ///< Answer the first EOT of a transfer with NAK.
};

/// The receiving half of a bootloader's XMODEM, fed byte by byte and without a clock of its own.
/// One object serves any number of transfers, one after the other.
class XmodemReceiver {
 public:
  static constexpr Micros kSolicitPeriod = 1 * kSecond;
  static constexpr Micros kByteGap = 1 * kSecond;
  static constexpr Micros kQuiet = 200 * kMillisecond;
  /// An EOT counts once nothing has followed it for so long: within a block that has lost its beginning any
  /// byte may look like one.
  static constexpr Micros kEotQuiet = 20 * kMillisecond;
  static constexpr int kMaxErrors = 10;
  static constexpr int kMaxBlockWaits = 10;

  /// `taker` and `output`, to which bytes for the host are appended, must outlive the receiver.
  XmodemReceiver(BlockTaker& taker, std::vector<std::uint8_t>& output);

  /// Begins a transfer: solicits the first block at once.
  void Start(const ReceiverOptions& options, Micros now);
  /// Takes one byte from the line.
  void Receive(std::uint8_t byte, Micros now);
  /// Does what is due at `now`; nothing if NextTimer() lies later.
  void Advance(Micros now);
  /// When Advance() has something to do if no byte comes before.
  Micros NextTimer() const { return iTimer; }
  TransferResult Result() const { return iResult; }

 private:
  enum class State {
    kSoliciting,
    kWaitBlock,
    kNumber,
    kComplement,
    kData,
    kTrailer,
    kLoneEot,
    kPurging,
    kEnded
  };
  enum class Kind { kNext, kRepeated, kAnew, kForeign };

  void Send(std::uint8_t byte) { iOutput.push_back(byte); }
  void Solicit(Micros now);
  void OnFirstByte(std::uint8_t byte, Micros now);
  void OnBlockStart(std::uint8_t byte, Micros now);
  void BeginBlock(std::uint8_t start, Micros now);
  void Expect(State state, Micros now);
  void OnComplement(std::uint8_t byte, Micros now);
  Kind KindOfBlock() const;
  void OnData(std::uint8_t byte, Micros now);
  void OnTrailer(std::uint8_t byte, Micros now);
  void OnSoundBlock(Micros now);
  void Store(Micros now);
  void HearEot(Micros now);
  void OnByteBehindEot(std::uint8_t byte, Micros now);
  void OnEot(Micros now);
  void OnFirstEot(Micros now);
  void Purge(std::uint8_t byte, Micros now);
  void OnQuiet(Micros now);
  void OnSilence(Micros now);
  void Complain(Micros now);
  void WaitForBlock(Micros now);
  bool IsSecondCan(std::uint8_t byte);
  void GiveUp(TransferResult result);
  void End(TransferResult result);

  BlockTaker& iTaker;
  std::vector<std::uint8_t>& iOutput;
  ReceiverOptions iOptions;
  State iState = State::kEnded;
  TransferResult iResult = TransferResult::kComplete;
  Micros iTimer = kNever;
  Trailer iTrailerKind = Trailer::kCrc;
  std::uint8_t iNumber = 0;
  std::uint8_t iLastNumber = 0;
  Kind iKind = Kind::kNext;
  std::size_t iBlockSize = 0;
  std::vector<std::uint8_t> iData;
  std::vector<std::uint8_t> iTrailer;
  bool iAnyBlock = false;
  bool iHeaderSeen = false;
  bool iEotSeen = false;
  bool iEotIsFirstByte = false;
  bool iCanSeen = false;
  bool iOnlyCrcRequest = false;
  int iSoundBlocks = 0;
  int iErrors = 0;
  int iSilences = 0;
};

}  // namespace simulator
