#include "report/Figures.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "trace/Steps.h"

namespace host::report {

namespace {

using trace::Dialogue;
using trace::Frame;
using trace::Side;
using trace::Transfer;

// As many columns as a chart has room for.
constexpr std::uint64_t kMostSteps = 40;

// The shortest of 0.1, 0.2, 0.5, 1, 2, 5 ... seconds of which there are not too many.
std::uint64_t StepFor(std::uint64_t duration_us) {
  for (std::uint64_t unit_us = 100'000;; unit_us *= 10) {
    for (const std::uint64_t step_us : {unit_us, 2 * unit_us, 5 * unit_us}) {
      if (duration_us / step_us < kMostSteps) {
        return step_us;
      }
    }
  }
}

class Counter {
 public:
  explicit Counter(const Dialogue& dialogue) : iDialogue(dialogue) {}

  Figures Count() {
    for (std::size_t i = 0; i < iDialogue.frames.size(); ++i) {
      if (iDialogue.frames[i].kind != Frame::Kind::Log) {
        Measure(iDialogue.frames[i]);
      }
      if (!iDialogue.frames[i].bytes.empty()) {
        Take(i);
      }
    }
    for (const Transfer& transfer : iDialogue.transfers) {
      iFigures.blocks += transfer.blocks;
    }
    for (const trace::Pause& pause : iDialogue.pauses) {
      iFigures.paused_us += pause.length_us;
    }
    return std::move(iFigures);
  }

 private:
  // A device that says nothing more is waited for until the run ends.
  void Measure(const Frame& frame) {
    if (!iBegin_us) {
      iBegin_us = frame.begin_us;
      iFigures.rate.step_us = StepFor(End_us());
    }
    iFigures.duration_us = std::max(iFigures.duration_us, frame.end_us - *iBegin_us);
  }

  void Take(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    const bool fromHost = frame.side == Side::Host;
    (fromHost ? iFigures.sent : iFigures.received) += frame.bytes.size();
    if (frame.kind == Frame::Kind::Block) {
      TakeBlock(index);
    } else if (frame.kind == Frame::Kind::Ack && !fromHost) {
      TakeAck(frame);
    }
    iLast[fromHost ? 0 : 1] = index;
  }

  std::uint64_t End_us() const { return iDialogue.frames.back().end_us; }

  void TakeBlock(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    const trace::Place& place = iDialogue.places.at(index);
    const Transfer& transfer = iDialogue.transfers[place.transfer];
    if (place.resent) {
      const std::optional<std::size_t> other = iLast[frame.side == Side::Host ? 1 : 0];
      iFigures.retransmissions.push_back({frame.begin_us, frame.side, frame.number, transfer.Name(),
                                          other ? Describe(iDialogue, *other) : "nothing"});
    }
    const bool isFile = frame.side == Side::Host && transfer.purpose == Transfer::Purpose::File;
    iUnacknowledged = isFile ? frame.Data().size() : 0;
  }

  void TakeAck(const Frame& frame) {
    iFigures.acknowledged += iUnacknowledged;
    const auto step = static_cast<std::size_t>(frame.end_us / iFigures.rate.step_us);
    std::vector<std::uint64_t>& bytes = iFigures.rate.bytes;
    bytes.resize(std::max(bytes.size(), step + 1));
    bytes[step] += std::exchange(iUnacknowledged, 0);
  }

  const Dialogue& iDialogue;
  Figures iFigures;
  std::optional<std::uint64_t> iBegin_us;
  std::array<std::optional<std::size_t>, 2> iLast;  // what host and device said last
  std::uint64_t iUnacknowledged = 0;                // data of the file's block at hand
};

}  // namespace

Figures Count(const Dialogue& dialogue) {
  return Counter(dialogue).Count();
}

}  // namespace host::report
