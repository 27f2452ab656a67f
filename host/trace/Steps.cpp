#include "trace/Steps.h"

#include <fmt/format.h>

#include "Logging.h"

namespace host::trace {

namespace {

// A shorter row of blocks is shown as it is.
constexpr std::size_t kShortestRow = 3;
// More stray bytes than this say no more.
constexpr std::size_t kMostStrays = 16;

std::string DescribeTrailer(const Frame& block) {
  const char* kind = block.hasCrc ? "CRC" : "checksum";
  const int digits = block.hasCrc ? 4 : 2;
  return block.trailerRight ? fmt::format("{} {:0{}x} right", kind, block.trailer, digits)
                            : fmt::format("{} {:0{}x} WRONG, right is {:0{}x}", kind, block.trailer, digits,
                                          block.computed, digits);
}

// What the block is about: the text that it holds, or where in a file it stands.
std::string DescribePlace(const Transfer& transfer, const Place& place) {
  return transfer.purpose == Transfer::Purpose::File
             ? fmt::format("{}, byte {}", transfer.Name(), place.dataOffset)
             : transfer.Name();
}

std::string DescribeBlock(const Dialogue& dialogue, std::size_t index) {
  const Frame& block = dialogue.frames[index];
  const Place& place = dialogue.places.at(index);
  std::string text = fmt::format("block {}, {} bytes, ", block.number, block.Data().size());
  text += block.complete ? DescribeTrailer(block) : "CUT OFF";
  if (!block.numberRight) {
    text += ", the two forms of its number DIFFER";
  }
  return text + (place.resent ? ", sent again: " : ": ") +
         DescribePlace(dialogue.transfers[place.transfer], place);
}

std::string DescribeStrays(const std::string& bytes) {
  return fmt::format("{} bytes that mean nothing here: {}{}", bytes.size(),
                     Hexadecimal(std::string_view(bytes).substr(0, kMostStrays)),
                     bytes.size() > kMostStrays ? " ..." : "");
}

Step::Look LookOf(const Dialogue& dialogue, std::size_t index) {
  const Frame& frame = dialogue.frames[index];
  switch (frame.kind) {
    case Frame::Kind::Block:
      return frame.trailerRight && frame.numberRight && !dialogue.places.at(index).resent ? Step::Look::Good
                                                                                          : Step::Look::Bad;
    case Frame::Kind::Nak:
    case Frame::Kind::Cancel:
    case Frame::Kind::Stray:
    case Frame::Kind::Lost:
      return Step::Look::Bad;
    case Frame::Kind::Ack:
      return Step::Look::Good;
    default:
      return Step::Look::Plain;
  }
}

bool IsByteFrame(const Frame& frame) {
  return !frame.bytes.empty();
}

class Builder {
 public:
  Builder(const Dialogue& dialogue, Detail detail) : iDialogue(dialogue), iDetail(detail) {}

  std::vector<Step> Build() {
    for (std::size_t i = 0; i < iDialogue.frames.size(); ++i) {
      const bool wanted = iDialogue.frames[i].kind != Frame::Kind::Log || iDetail == Detail::FramesAndLog;
      if (wanted) {
        iShown.push_back(i);
      }
    }
    for (std::size_t i = 0; i < iShown.size();) {
      AddPauseBefore(iShown[i]);
      const std::size_t row = iDetail == Detail::Condensed ? RowAt(i) : 0;
      if (row >= kShortestRow) {
        AddRow(i, row);
        i += 2 * row;
      } else {
        AddFrame(iShown[i]);
        ++i;
      }
    }
    return std::move(iSteps);
  }

 private:
  void AddPauseBefore(std::size_t frame) {
    if (iNextPause < iDialogue.pauses.size() && iDialogue.pauses[iNextPause].before == frame) {
      const Pause& pause = iDialogue.pauses[iNextPause++];
      const std::uint64_t begin_us = iDialogue.frames[frame].begin_us - pause.length_us;
      iSteps.push_back({std::nullopt,
                        begin_us,
                        fmt::format("pause of {} s", Seconds(pause.length_us)),
                        Step::Look::Plain,
                        {}});
    }
  }

  void AddFrame(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    iSteps.push_back({IsByteFrame(frame) ? std::make_optional(frame.side) : std::nullopt,
                      frame.begin_us,
                      Describe(iDialogue, index),
                      LookOf(iDialogue, index),
                      {index}});
  }

  // How many sound blocks of one transfer, each followed by its ACK, come in a row.
  std::size_t RowAt(std::size_t shown) const {
    std::size_t row = 0;
    while (IsAcknowledgedBlock(shown + 2 * row, iShown[shown]) &&
           (row == 0 || !PauseWithin(shown + 2 * row))) {
      ++row;
    }
    return row;
  }

  bool IsAcknowledgedBlock(std::size_t shown, std::size_t firstOfRow) const {
    if (shown + 1 >= iShown.size() || iDialogue.frames[iShown[shown]].kind != Frame::Kind::Block ||
        iDialogue.frames[firstOfRow].kind != Frame::Kind::Block) {
      return false;
    }
    const Frame& block = iDialogue.frames[iShown[shown]];
    const Frame& answer = iDialogue.frames[iShown[shown + 1]];
    return LookOf(iDialogue, iShown[shown]) == Step::Look::Good && answer.kind == Frame::Kind::Ack &&
           answer.side != block.side && !PauseWithin(shown + 1) &&
           iDialogue.places.at(iShown[shown]).transfer == iDialogue.places.at(firstOfRow).transfer;
  }

  bool PauseWithin(std::size_t shown) const {
    for (const Pause& pause : iDialogue.pauses) {
      if (pause.before == iShown[shown]) {
        return true;
      }
    }
    return false;
  }

  void AddRow(std::size_t shown, std::size_t row) {
    const std::size_t first = iShown[shown];
    const std::size_t last = iShown[shown + 2 * row - 2];
    const Place& place = iDialogue.places.at(first);
    Step step = {iDialogue.frames[first].side, iDialogue.frames[first].begin_us, {}, Step::Look::Good, {}};
    step.text =
        fmt::format("{} blocks, {} to {}, each acknowledged: {}", row, iDialogue.frames[first].number,
                    iDialogue.frames[last].number, DescribePlace(iDialogue.transfers[place.transfer], place));
    step.frames.assign(iShown.begin() + static_cast<std::ptrdiff_t>(shown),
                       iShown.begin() + static_cast<std::ptrdiff_t>(shown + 2 * row));
    iSteps.push_back(std::move(step));
  }

  const Dialogue& iDialogue;
  const Detail iDetail;
  std::vector<std::size_t> iShown;  // the frames that are wanted
  std::vector<Step> iSteps;
  std::size_t iNextPause = 0;
};

}  // namespace

std::string Describe(const Dialogue& dialogue, std::size_t index) {
  const Frame& frame = dialogue.frames[index];
  switch (frame.kind) {
    case Frame::Kind::Block:
      return DescribeBlock(dialogue, index);
    case Frame::Kind::Ack:
      return "ACK";
    case Frame::Kind::Nak:
      return "NAK";
    case Frame::Kind::Eot:
      return "EOT";
    case Frame::Kind::CrcRequest:
      return "C, asks for blocks with CRC";
    case Frame::Kind::Cancel:
      return fmt::format("CAN, {} in a row", frame.bytes.size());
    case Frame::Kind::Stray:
      return DescribeStrays(frame.bytes);
    case Frame::Kind::Opened:
      return fmt::format("port opened (bit/s, name): {}", logging::Printable(frame.text));
    case Frame::Kind::Lost:
      return fmt::format("port lost: {}", logging::Printable(frame.text));
    case Frame::Kind::Closed:
      return "port closed";
    case Frame::Kind::Log:
      return fmt::format("log: {}", logging::Printable(frame.text));
    case Frame::Kind::End:
      return fmt::format("the run ended (exit code, outcome): {}", logging::Printable(frame.text));
  }
  return {};
}

std::vector<Step> StepsOf(const Dialogue& dialogue, Detail detail) {
  return Builder(dialogue, detail).Build();
}

const char* Name(Side side) {
  return side == Side::Host ? "host" : "device";
}

std::string Seconds(std::uint64_t time_us) {
  return fmt::format("{}.{:06}", time_us / 1'000'000, time_us % 1'000'000);
}

std::string Hexadecimal(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += fmt::format("{}{:02x}", text.empty() ? "" : " ", static_cast<unsigned char>(byte));
  }
  return text;
}

}  // namespace host::trace
