#include "trace/Dialogue.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "Logging.h"

namespace host::trace {

namespace {

bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// The text that a block holds, which zeros fill up.
std::string TextOf(const Frame& block) {
  const std::string_view data = block.Data();
  return std::string(data.substr(0, data.find('\0')));
}

bool IsCommand(std::string_view text) {
  const std::string_view verb = text.substr(0, 3);
  return IsPrintable(text) && (verb == "wr " || verb == "gt " || verb == "ck ");
}

class Listener {
 public:
  explicit Listener(Dialogue& dialogue) : iDialogue(dialogue) {}

  void Listen() {
    for (std::size_t i = 0; i < iDialogue.frames.size(); ++i) {
      const Frame& frame = iDialogue.frames[i];
      if (frame.kind != Frame::Kind::Log) {
        MeasurePause(i);
        Take(i);
      }
    }
  }

 private:
  // What is going on at one side.
  struct Sending {
    std::optional<std::size_t> transfer;
    int lastNumber = 0;
    bool ended = false;  // EOT was sent
  };

  void MeasurePause(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    if (frame.begin_us >= iLast_us + kPause_us) {
      iDialogue.pauses.push_back({index, frame.begin_us - iLast_us});
    }
    iLast_us = std::max(iLast_us, frame.end_us);
  }

  void Take(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    switch (frame.kind) {
      case Frame::Kind::Block:
        TakeBlock(index);
        break;
      case Frame::Kind::Eot:
        Of(frame.side).ended = true;
        Extend(Of(frame.side), frame);
        break;
      case Frame::Kind::Ack:
        TakeAck(frame);
        break;
      case Frame::Kind::Cancel:
        Conclude(Of(Side::Host), frame, Transfer::Result::Cancelled);
        Conclude(Of(Side::Device), frame, Transfer::Result::Cancelled);
        break;
      case Frame::Kind::Opened:
        iSendings = {};
        iFileFor.reset();
        iCommanded = false;
        break;
      default:
        break;
    }
  }

  void TakeAck(const Frame& frame) {
    Sending& other = Of(frame.side == Side::Host ? Side::Device : Side::Host);
    Extend(other, frame);
    if (other.ended) {
      Conclude(other, frame, Transfer::Result::Complete);
    }
  }

  // One CAN alone cancels nothing.
  void Conclude(Sending& sending, const Frame& frame, Transfer::Result result) {
    if (sending.transfer && (result != Transfer::Result::Cancelled || frame.bytes.size() > 1)) {
      Extend(sending, frame);
      iDialogue.transfers[*sending.transfer].result = result;
      sending = {};
    }
  }

  void Extend(const Sending& sending, const Frame& frame) {
    if (sending.transfer) {
      iDialogue.transfers[*sending.transfer].end_us = frame.end_us;
    }
  }

  // A transfer begins with block 1, unless the numbers have just come round.
  void TakeBlock(std::size_t index) {
    const Frame& frame = iDialogue.frames[index];
    Sending& sending = Of(frame.side);
    const bool first = frame.number == 1 && sending.lastNumber > 1;
    if (!sending.transfer || sending.ended || first) {
      sending = {iDialogue.transfers.size(), -1, false};
      Begin(frame);
    }
    Transfer& transfer = iDialogue.transfers[*sending.transfer];
    const bool resent = frame.number == sending.lastNumber;
    const std::uint64_t size = frame.Data().size();
    iDialogue.places[index] = {*sending.transfer,
                               transfer.size - (resent ? std::min(size, transfer.size) : 0), resent};
    if (resent) {
      ++transfer.resent;
    } else {
      ++transfer.blocks;
      transfer.size += size;
      transfer.frames.push_back(index);
    }
    sending.lastNumber = frame.number;
    Extend(sending, frame);
  }

  void Begin(const Frame& frame) {
    Transfer transfer = {Transfer::Purpose::File, frame.side};
    transfer.begin_us = frame.begin_us;
    transfer.text = TextOf(frame);
    if (frame.side == Side::Device) {
      transfer.purpose = iCommanded ? Transfer::Purpose::Answer : Transfer::Purpose::Version;
    } else if (iFileFor) {
      transfer.text = *iFileFor;
      iFileFor.reset();
    } else if (IsCommand(transfer.text)) {
      transfer.purpose = Transfer::Purpose::Command;
      iCommanded = true;
      if (transfer.text[0] == 'w') {
        iFileFor = transfer.text.substr(3);
      }
    } else {
      transfer.text.clear();
    }
    iDialogue.transfers.push_back(std::move(transfer));
  }

  Sending& Of(Side side) { return iSendings[side == Side::Host ? 0 : 1]; }

  Dialogue& iDialogue;
  std::array<Sending, 2> iSendings;
  std::optional<std::string> iFileFor;  // the address of a "wr" whose file has not begun
  bool iCommanded = false;
  std::uint64_t iLast_us = 0;  // the run may begin with a silence
};

std::map<std::string, std::string> Pairs(std::string_view lines) {
  std::map<std::string, std::string> pairs;
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    const std::size_t equals = line.find('=');
    if (equals != std::string_view::npos) {
      pairs.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
  }
  return pairs;
}

void TakeEnd(Dialogue& dialogue, const std::string& text) {
  int code = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
  if (error == std::errc()) {
    dialogue.exitCode = code;
    const auto digits = static_cast<std::size_t>(end - text.data());
    dialogue.outcome = text.substr(std::min(digits + 1, text.size()));
  }
}

}  // namespace

const char* Name(Transfer::Result result) {
  switch (result) {
    case Transfer::Result::Complete:
      return "complete";
    case Transfer::Result::Cancelled:
      return "cancelled";
    case Transfer::Result::Unfinished:
      return "unfinished";
  }
  return "";
}

std::string Transfer::Name() const {
  const std::string said = logging::Printable(text);
  switch (purpose) {
    case Purpose::Version:
      return fmt::format("version \"{}\"", said);
    case Purpose::Command:
      return fmt::format("command \"{}\"", said);
    case Purpose::Answer:
      return fmt::format("answer \"{}\"", said);
    case Purpose::File:
      break;
  }
  return text.empty() ? "file" : fmt::format("file for {}", said);
}

Dialogue Understand(const Trace& trace) {
  Dialogue dialogue;
  for (const Record& record : trace.records) {
    if (record.kind == Kind::Start) {
      dialogue.description = Pairs(record.payload);
    } else if (record.kind == Kind::End) {
      TakeEnd(dialogue, record.payload);
    }
  }
  dialogue.frames = FramesOf(trace);
  Listener(dialogue).Listen();
  return dialogue;
}

}  // namespace host::trace
