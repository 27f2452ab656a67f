// Goal: whatever arrives at the sender, it sends the file or the buffer in sound blocks in their order, says
// that all is well only when all of it was acknowledged, and ends.
// Method: "b1500 CAAA": a buffer of 1500 bytes ("f": a file), and what arrives, in the words of LineScript.h.
#include <optional>
#include <string>
#include <vector>

#include "Frames.h"
#include "LineScript.h"
#include "Reclaimer.h"
#include "SourceFile.h"
#include "Target.h"
#include "VirtualClock.h"
#include "XModem.h"

namespace fuzz {
namespace {

constexpr int kLargestSource = 5000;
constexpr int kCancelBytes = 6;
constexpr int kMostNaksOfABlock = 10;
constexpr int kMostEots = 50;
constexpr std::uint64_t kLongestEnd_ms = 600'000;

class Progress : public IXModemCallback {
 public:
  explicit Progress(int total) : iTotal(total), iLeft(total) {}

  void IXModemProgress(TInt32 left, TInt32 total) override {
    Promise(total == iTotal, "progress tells another size than the file's");
    Promise(left >= 0 && left <= iLeft, "progress runs backwards or out of the file");
    iLeft = left;
  }

  int Left() const { return iLeft; }

 private:
  int iTotal;
  int iLeft;
};

// What the sender wrote, checked as it is counted.
class SentTransfer {
 public:
  explicit SentTransfer(const std::string& source) : iSource(Padded(source)), iSize(source.size()) {}

  void Read(const std::vector<WrittenItem>& items) {
    for (const WrittenItem& item : items) {
      if (item.kind == WrittenItem::kBlock) {
        Promise(iEots == 0 && iCans == 0, "a block comes behind the transfer's end");
        ReadBlock(item.frame);
      } else if (item.kind == WrittenItem::kByte) {
        ReadByte(item.byte);
      } else {
        iTorn = true;
      }
    }
  }

  bool AllSent() const { return iEnd == iSource.size(); }
  int Blocks() const { return iBlocks; }
  int Eots() const { return iEots; }
  int Cans() const { return iCans; }
  bool IsTorn() const { return iTorn; }

 private:
  void ReadBlock(const Frame& frame) {
    if (iBlocks > 0 && frame.number == static_cast<std::uint8_t>(iBlocks)) {
      Promise(++iRepetitions <= kMostNaksOfABlock, "a block is repeated more often than it may be rejected");
    } else {
      Promise(frame.number == static_cast<std::uint8_t>(iBlocks + 1), "a block number is left out");
      ++iBlocks;
      iRepetitions = 0;
      iBegin = iEnd;
      iEnd += frame.data.size();
    }
    const std::size_t left = iSize - iBegin;
    Promise(frame.data.size() ==
                (left <= simulator::kShortBlock ? simulator::kShortBlock : simulator::kLongBlock),
            "a block is of the wrong size");
    Promise(frame.data == iSource.substr(iBegin, frame.data.size()),
            "a block holds other bytes than the source");
  }

  void ReadByte(std::uint8_t byte) {
    if (byte == simulator::kEot) {
      Promise(iCans == 0, "an EOT comes behind the cancellation");
      Promise(AllSent(), "an EOT comes before all is sent");
      Promise(++iEots <= kMostEots, "the EOT is repeated without end");
    } else {
      Promise(byte == simulator::kCan, "a sender sends what only a receiver may");
      ++iCans;
    }
  }

  const std::string iSource;
  const std::size_t iSize;
  std::size_t iBegin = 0;
  std::size_t iEnd = 0;
  int iBlocks = 0;
  int iRepetitions = 0;
  int iEots = 0;
  int iCans = 0;
  bool iTorn = false;
};

// The first byte that asks for data decides what blocks end in.
std::optional<simulator::Trailer> TrailerAskedFor(const LineScript& script) {
  for (const LineStep& step : script.steps) {
    if (step.kind == LineStep::kByte && step.byte == simulator::kCrcRequest) {
      return simulator::Trailer::kCrc;
    }
    if (step.kind == LineStep::kByte && step.byte == simulator::kNak) {
      return simulator::Trailer::kChecksum;
    }
  }
  return std::nullopt;
}

void CheckResult(IXModem::TXModemError result, const SentTransfer& sent, const LineScript& script,
                 bool isFile) {
  const bool lineBreaks = script.first_failing_write != 0;
  Promise(!sent.IsTorn() || (lineBreaks && result == IXModem::EXModemSerialPortError),
          "a block is torn though the line holds");
  switch (result) {
    case IXModem::EXModemOk:
      Promise(sent.AllSent() && sent.Eots() > 0 && sent.Cans() == 0, "success, but not all was sent");
      Promise(Count(script, simulator::kAck) > sent.Blocks(), "success, but not all was acknowledged");
      return;
    case IXModem::EXModemFileError:
      Promise(isFile && sent.Blocks() == 0 && sent.Eots() == 0 && sent.Cans() == 0,
              "an error of the file, but the transfer had begun");
      return;
    case IXModem::EXModemSerialPortError:
      Promise(lineBreaks, "an error of the port, whose writes all succeed");
      return;
    case IXModem::EXModemCancelled:
      Promise(sent.Cans() == 0 && Count(script, simulator::kCan) >= 2, "cancelled by nobody");
      return;
    case IXModem::EXModemTooManyNaks:
      Promise(Count(script, simulator::kNak) > kMostNaksOfABlock, "too many NAKs, but there were few");
      [[fallthrough]];
    case IXModem::EXModemTimeout:
    case IXModem::EXModemWrongReply:
      Promise(lineBreaks || sent.Cans() == kCancelBytes, "the receiver is not told that the transfer failed");
      return;
    default:
      Promise(false, "a result that no sender has");
  }
}

IXModem::TXModemError SendFile(CXModem& engine, SourceFile& file, int size) {
  Progress progress(size);
  const Reclaimer reclaimer;
  const IXModem::TXModemError result = engine.SendFile(AsTChr(file.Path()), progress);
  const std::size_t kept = result == IXModem::EXModemFileError ? 1 : 0;
  Promise(reclaimer.Files() == kept && reclaimer.Buffers() == kept, "a buffer or a file is kept");
  Promise(result != IXModem::EXModemOk || progress.Left() == 0,
          "success, but progress did not come to its end");
  return result;
}

}  // namespace

void Run(std::string_view input) {
  static SourceFile file("source");
  virtual_clock::Reset();
  const bool isFile = input.substr(0, 1) == "f";
  input.remove_prefix(input.empty() ? 0 : 1);
  const int size = TakeNumber(input, kLargestSource);
  const LineScript script = ParseLineScript(input);
  const std::string source = isFile ? file.Resize(size) : Pattern(size);
  ScriptedPort port;
  Play(script, port);

  CXModem engine(&port);
  // Without a terminating zero, so that one byte too many is seen.
  const std::vector<TUint8> buffer(source.begin(), source.end());
  const IXModem::TXModemError result =
      isFile ? SendFile(engine, file, size) : engine.SendBuffer(buffer.data(), size);

  SentTransfer sent(source);
  const std::string written(port.Written().begin(), port.Written().end());
  sent.Read(WrittenItems(written, TrailerAskedFor(script)));
  CheckResult(result, sent, script, isFile);
  Promise(virtual_clock::Now_ms() <= Silence_ms(script) + kLongestEnd_ms,
          "a silent line is waited for too long");
}

}  // namespace fuzz
