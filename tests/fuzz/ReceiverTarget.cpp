// Goal: whatever arrives at the receiver, it stores the data of sound blocks in their order and nothing else,
// never more than there is room for, says that all is well only at the sender's end, and ends.
// Method: "b1024 [000]E": a buffer of 1024 bytes ("f": a file), and what arrives, in the words of
// LineScript.h.
#include <algorithm>
#include <string>

#include "Frames.h"
#include "LineScript.h"
#include "SourceFile.h"
#include "Target.h"
#include "VirtualClock.h"
#include "XModem.h"

namespace fuzz {
namespace {

constexpr int kLargestCapacity = 50'000;
// More than 255 blocks, so that their numbers begin again.
constexpr std::size_t kMostSteps = 36'000;
constexpr std::uint64_t kLongestEnd_ms = 600'000;
constexpr std::size_t kCanarySize = 64;
constexpr char kCanary = '\xA5';

struct Received {
  IXModem::TXModemError result;
  std::string data;
};

Received IntoBuffer(CXModem& engine, int capacity) {
  const auto room = static_cast<std::size_t>(capacity);
  std::string buffer(room + kCanarySize, kCanary);
  TInt32 count = -1;
  const IXModem::TXModemError result =
      engine.ReceiveBuffer(reinterpret_cast<TUint8*>(buffer.data()), capacity, &count);
  Promise(count >= 0 && count <= capacity, "more was received than there is room for");
  Promise(count == capacity || count % static_cast<TInt32>(simulator::kShortBlock) == 0,
          "a block was stored in part");
  Promise(buffer.find_first_not_of(kCanary, static_cast<std::size_t>(count)) == std::string::npos,
          "what lies behind the received bytes was overwritten");
  buffer.resize(static_cast<std::size_t>(count));
  return {result, buffer};
}

Received IntoFile(CXModem& engine) {
  static const std::string path = Scratch().Path("received");
  const IXModem::TXModemError result = engine.ReceiveFile(AsTChr(path));
  std::string data = ContentOf(path);
  Promise(data.size() % simulator::kShortBlock == 0, "a block was stored in part");
  return {result, data};
}

bool HasReadError(const LineScript& script) {
  return std::any_of(script.steps.begin(), script.steps.end(),
                     [](const LineStep& step) { return step.kind == LineStep::kError; });
}

void CheckResult(const Received& received, const std::string& written, const LineScript& script) {
  const bool lineBreaks = script.first_failing_write != 0;
  const auto cans = std::count(written.begin(), written.end(), static_cast<char>(simulator::kCan));
  switch (received.result) {
    case IXModem::EXModemOk:
      Promise(!received.data.empty() || Count(script, simulator::kSoh) + Count(script, simulator::kStx) > 0,
              "success without any block");
      Promise(Count(script, simulator::kEot) > 0, "success without the sender's end");
      Promise(!written.empty() && written.back() == simulator::kAck, "success without a last ACK");
      Promise(cans == 0, "success, but the sender was cancelled");
      return;
    case IXModem::EXModemSerialPortError:
      Promise(lineBreaks || HasReadError(script), "an error of the port, which has none");
      return;
    case IXModem::EXModemCancelled:
      Promise(cans == 0 && Count(script, simulator::kCan) >= 2, "cancelled by nobody");
      return;
    case IXModem::EXModemTimeout:
    case IXModem::EXModemNoValidPacket:
    case IXModem::EXModemCrcError:
    case IXModem::EXModemBlockNumberError:
    case IXModem::EXModemSequenceError:
    case IXModem::EXModemDuplicatePacket:
      Promise(lineBreaks || cans == 6, "the sender is not told that the transfer failed");
      return;
    default:
      Promise(false, "a result that no receiver has");
  }
}

void CheckWritten(const std::string& written) {
  const std::string allowed = {simulator::kCrcRequest, simulator::kAck, simulator::kNak, simulator::kCan};
  Promise(written.find_first_not_of(allowed) == std::string::npos, "a receiver sends what only a sender may");
}

}  // namespace

void Run(std::string_view input) {
  virtual_clock::Reset();
  const bool isFile = input.substr(0, 1) == "f";
  input.remove_prefix(input.empty() ? 0 : 1);
  const int capacity = TakeNumber(input, kLargestCapacity);
  const LineScript script = ParseLineScript(input, kMostSteps);
  ScriptedPort port;
  Play(script, port);

  CXModem engine(&port);
  const Received received = isFile ? IntoFile(engine) : IntoBuffer(engine, capacity);

  const std::string written(port.Written().begin(), port.Written().end());
  CheckWritten(written);
  CheckResult(received, written, script);
  Promise(ConsistsOfBlocks(received.data, BytesOf(script)), "the received bytes are not those of the blocks");
  Promise(virtual_clock::Now_ms() <= Silence_ms(script) + kLongestEnd_ms,
          "a silent line is waited for too long");
}

}  // namespace fuzz
