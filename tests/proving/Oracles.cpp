#include "Oracles.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Frames.h"

namespace proving {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kLargeBlock = 1024;
constexpr std::size_t kBlocksPerWrap = 256;
// 80 ticks of half a second, and one in which the last step may have been done.
constexpr std::int64_t kLongestSilence_us = (80 + 1) * 500'000;

bool IsPrefix(const Bytes& part, const Bytes& whole) {
  return part.size() < whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

bool IsSuffix(const Bytes& part, const Bytes& whole) {
  return part.size() < whole.size() && std::equal(part.rbegin(), part.rend(), whole.rbegin());
}

Bytes FirstBytes(const Bytes& bytes, std::size_t count) {
  return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::size_t BlocksOf(std::size_t bytes) {
  return (bytes + kLargeBlock - 1) / kLargeBlock;
}

std::size_t MissingBlocks(const Holding& holding) {
  return BlocksOf(holding.expected.size()) - BlocksOf(holding.flash.size());
}

// What the device holds is the image as far as it goes, and one of the image's transfers explains as many
// blocks as are missing.
template <typename Explained>
bool LacksAsManyBlocks(const Observation& seen, const Holding& holding, Explained explained) {
  const std::size_t missing = MissingBlocks(holding);
  return IsPrefix(holding.flash, holding.expected) &&
         std::any_of(seen.transfers.begin(), seen.transfers.end(),
                     [&](const Transfer& transfer) { return explained(transfer) >= missing; });
}

// The host believed ACKs that no device had sent.
bool IsForgedAck(const Observation& seen, const Holding& holding) {
  return LacksAsManyBlocks(seen, holding, [](const Transfer& transfer) { return transfer.forgedAcks; });
}

std::vector<Frame> FramesOf(const Observation& seen, const Transfer& transfer) {
  const auto first = seen.delivered.begin();
  return FindFrames(Bytes(first + static_cast<std::ptrdiff_t>(transfer.begin),
                          first + static_cast<std::ptrdiff_t>(transfer.end)));
}

// How many frames reached the device that were the same as the one before: it acknowledges each of them, and
// XMODEM's ACKs have no numbers.
std::size_t RepeatedFrames(const std::vector<Frame>& frames) {
  std::size_t repeated = 0;
  for (std::size_t index = 1; index < frames.size(); ++index) {
    const bool isSame =
        frames[index].number == frames[index - 1].number && frames[index].data == frames[index - 1].data;
    repeated += isSame ? 1U : 0U;
  }
  return repeated;
}

// A block was sent again while its ACK was still under way: the second ACK stood for a block that the device
// lacks.
bool IsSurplusAck(const Observation& seen, const Holding& holding) {
  return LacksAsManyBlocks(
      seen, holding, [&](const Transfer& transfer) { return RepeatedFrames(FramesOf(seen, transfer)); });
}

// A device that had lost a block's beginning took a byte of it for the end of the transfer and acknowledged
// that.
bool IsForgedEnd(const Observation& seen, const Holding& holding) {
  return LacksAsManyBlocks(seen, holding, [](const Transfer& transfer) { return transfer.forgedEnds; });
}

// Another device of the list still had the line, and took the blocks for something of its own.
bool IsOtherDevice(const Observation& seen, const Holding& holding) {
  return LacksAsManyBlocks(seen, holding, [&](const Transfer& transfer) {
    const std::vector<Frame> frames = FramesOf(seen, transfer);
    const auto went_elsewhere = [&](const Frame& frame) {
      return seen.takers[transfer.begin + frame.begin] != holding.index;
    };
    return static_cast<std::size_t>(std::count_if(frames.begin(), frames.end(), went_elsewhere));
  });
}

bool HasBlock(const std::vector<Frame>& frames, const Bytes& data) {
  return std::any_of(frames.begin(), frames.end(), [&](const Frame& frame) { return frame.data == data; });
}

// Each block with other bytes reached the device in a frame that was right in every respect and that the host
// had not written: the line made it.
bool IsCollision(const Observation& seen, const Holding& holding) {
  if (holding.flash.size() != holding.expected.size()) {
    return false;
  }
  const std::vector<Frame> delivered = FindFrames(seen.delivered);
  const std::vector<Frame> written = FindFrames(seen.written);
  for (std::size_t begin = 0; begin < holding.flash.size(); begin += kLargeBlock) {
    const auto end = static_cast<std::ptrdiff_t>(std::min(begin + kLargeBlock, holding.flash.size()));
    const Bytes held(holding.flash.begin() + static_cast<std::ptrdiff_t>(begin), holding.flash.begin() + end);
    const Bytes due(holding.expected.begin() + static_cast<std::ptrdiff_t>(begin),
                    holding.expected.begin() + end);
    if (held != due && (!HasBlock(delivered, held) || HasBlock(written, held))) {
      return false;
    }
  }
  return true;
}

// A device began anew just where the block numbers begin anew: block 257 passes for the first.
bool HasLostWholeRounds(const Observation& seen, const Holding& holding) {
  const std::size_t lost = MissingBlocks(holding);
  return seen.resets > 0 && IsSuffix(holding.flash, holding.expected) && lost > 0 &&
         lost % kBlocksPerWrap == 0;
}

// A second transfer began there: its first block passes for block 257, or for the same once more.
bool GoesOnWithSecondTransfer(const Observation& seen, const Holding& holding) {
  if (seen.installs < 2 || holding.flash.size() <= holding.expected.size()) {
    return false;
  }
  const std::size_t surplus = BlocksOf(holding.flash.size()) - BlocksOf(holding.expected.size());
  const auto is_joined = [&](std::size_t repeated) {
    const std::size_t first = std::min((surplus + repeated) * kLargeBlock, holding.expected.size());
    Bytes joined = FirstBytes(holding.expected, first);
    joined.insert(joined.end(),
                  holding.expected.begin() + static_cast<std::ptrdiff_t>(repeated * kLargeBlock),
                  holding.expected.end());
    return joined == holding.flash;
  };
  return surplus % kBlocksPerWrap == 0 && (is_joined(0) || is_joined(1));
}

bool IsWrappedNumber(const Observation& seen, const Holding& holding) {
  return HasLostWholeRounds(seen, holding) || GoesOnWithSecondTransfer(seen, holding);
}

// The device makes the error when its image is whole, and only if it checks nothing can nobody be the wiser.
bool HasUnnoticedError(const Holding& holding) {
  return holding.flashError && holding.device == "sanyo" && !holding.flash.empty() &&
         holding.flash[0] != holding.expected[0];
}

// Without the error in its first cell.
Holding Repaired(Holding holding) {
  holding.flash[0] ^= 0x01;
  holding.flashError = false;
  return holding;
}

Excuse ExcuseOf(const Observation& seen, const Holding& holding) {
  if (holding.erasedAgain) {
    return Excuse::kErasedAgain;
  }
  if (HasUnnoticedError(holding)) {
    const Holding repaired = Repaired(holding);
    return repaired.flash == repaired.expected ? Excuse::kFlashError : ExcuseOf(seen, repaired);
  }
  if (IsForgedAck(seen, holding)) {
    return Excuse::kForgedAck;
  }
  if (IsSurplusAck(seen, holding)) {
    return Excuse::kSurplusAck;
  }
  if (IsForgedEnd(seen, holding)) {
    return Excuse::kForgedEnd;
  }
  if (IsOtherDevice(seen, holding)) {
    return Excuse::kOtherDevice;
  }
  if (IsWrappedNumber(seen, holding)) {
    return Excuse::kWrappedNumber;
  }
  return IsCollision(seen, holding) ? Excuse::kCollision : Excuse::kNone;
}

}  // namespace

const std::vector<Oracle>& Oracles() {
  static const std::vector<Oracle> oracles = {
      {"An installation that ends is told by exactly one result, and by none behind it.",
       [](const Observation& seen) {
         return seen.deleted ? seen.results <= seen.installs : seen.results == seen.installs;
       }},
      {"A success is told only if each device holds the image, byte for byte and padded with zeros.",
       [](const Observation& seen) { return seen.wrongHoldings.empty() || ExcuseOf(seen) != Excuse::kNone; }},
      {"A success is told only if each device that can check its flash has done so and found it right.",
       [](const Observation& seen) { return !seen.checkMissing; }},
      {"An installation that does no step for 40 s is over.",
       [](const Observation& seen) {
         return seen.endedInTime && seen.workersEnded && seen.longestSilence_us <= kLongestSilence_us;
       }},
      {"A single byte spoilt within a block costs no update.",
       [](const Observation& seen) { return !seen.successDue || seen.successes > 0; }},
      {"Every block that goes out is one of the commands', the loader's or the image's, with its number.",
       [](const Observation& seen) { return seen.foreignFrames == 0; }},
      {"What the controller is told is right to the byte.",
       [](const Observation& seen) { return seen.wrongPayloads == 0; }},
      {"An abort is answered by one result of its own.",
       [](const Observation& seen) {
         return seen.deleted ? seen.abortResults <= seen.aborts : seen.abortResults == seen.aborts;
       }},
      {"Nothing reaches the host from any other thread than the one that delivers events.",
       [](const Observation& seen) { return seen.callsOffEventThread == 0; }},
      {"The progress of an installation never falls.",
       [](const Observation& seen) { return seen.progressFell == 0; }},
      {"Whatever happened, an installation afterwards on a healthy line succeeds.",
       [](const Observation& seen) { return seen.recovered; }},
      {"A deleted module leaves no thread, no subscription, no file and no memory but what it must, and is "
       "still.",
       [](const Observation& seen) {
         return seen.threadsLeft == 0 && seen.subscriptionsLeft == 0 && seen.filesLeft == seen.filesKept &&
                seen.blocksLeft == seen.filesKept && seen.saidAfterDeletion == 0;
       }},
      {"A transfer that is given up ends with six CAN, and with nothing behind them.",
       [](const Observation& seen) { return seen.bytesBehindCancel == 0 && seen.cancelsMissing == 0; }},
      {"The log holds no line but those that are documented.",
       [](const Observation& seen) { return seen.unknownLines.empty(); }},
  };
  return oracles;
}

const char* Name(Excuse excuse) {
  switch (excuse) {
    case Excuse::kForgedAck:
      return "an ACK that no device had sent";
    case Excuse::kSurplusAck:
      return "the ACK of a block sent again, in the place of the next one's";
    case Excuse::kForgedEnd:
      return "the ACK of a byte that a device took for the end of the transfer";
    case Excuse::kOtherDevice:
      return "the ACK of another device that still had the line";
    case Excuse::kCollision:
      return "a wrong block with the right check value";
    case Excuse::kWrappedNumber:
      return "a device or a transfer that began anew where the block numbers do";
    case Excuse::kErasedAgain:
      return "a flash that a second installation had begun to erase";
    case Excuse::kFlashError:
      return "a wrong flash cell in a device that checks nothing";
    default:
      return "none";
  }
}

Excuse ExcuseOf(const Observation& seen) {
  Excuse excuse = Excuse::kNone;
  for (const Holding& holding : seen.wrongHoldings) {
    excuse = ExcuseOf(seen, holding);
    if (excuse == Excuse::kNone) {
      return excuse;
    }
  }
  return excuse;
}

std::vector<std::string> Broken(const Observation& seen) {
  std::vector<std::string> sentences;
  for (const Oracle& oracle : Oracles()) {
    if (!oracle.holds(seen)) {
      sentences.emplace_back(oracle.sentence);
    }
  }
  return sentences;
}

}  // namespace proving
