#include "trace/Frames.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>

namespace host::trace {

namespace {

constexpr char kSoh = 0x01;
constexpr char kStx = 0x02;
constexpr char kEot = 0x04;
constexpr char kAck = 0x06;
constexpr char kNak = 0x15;
constexpr char kCan = 0x18;
constexpr char kCrcRequest = 'C';

// How long the host waits for the next byte of a block.
constexpr std::uint64_t kPatience_us = 5'000'000;
constexpr std::size_t kHeader_bytes = 3;
constexpr std::size_t kSmallBlock_bytes = 128;
constexpr std::size_t kLargeBlock_bytes = 1024;

unsigned Byte(char character) {
  return static_cast<unsigned char>(character);
}

unsigned Crc16(std::string_view bytes) {
  unsigned crc = 0;
  for (const char byte : bytes) {
    crc ^= Byte(byte) << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc << 1) ^ ((crc & 0x8000) != 0 ? 0x1021U : 0U);
    }
    crc &= 0xFFFF;
  }
  return crc;
}

unsigned Checksum(std::string_view bytes) {
  return std::accumulate(bytes.begin(), bytes.end(), 0U,
                         [](unsigned sum, char byte) { return (sum + Byte(byte)) & 0xFF; });
}

std::size_t DataSize(const std::string& block) {
  return block[0] == kStx ? kLargeBlock_bytes : kSmallBlock_bytes;
}

std::size_t TrailerSize(const Frame& block) {
  return block.hasCrc ? 2 : 1;
}

Frame::Kind KindOf(char byte) {
  switch (byte) {
    case kEot:
      return Frame::Kind::Eot;
    case kAck:
      return Frame::Kind::Ack;
    case kNak:
      return Frame::Kind::Nak;
    case kCan:
      return Frame::Kind::Cancel;
    case kCrcRequest:
      return Frame::Kind::CrcRequest;
    default:
      return Frame::Kind::Stray;
  }
}

// What has to be known of a side while its bytes are taken apart.
struct Speaker {
  std::uint64_t count = 0;           // bytes so far
  std::optional<std::size_t> block;  // the frame of a block that is not whole yet
  bool inTransfer = false;           // it has sent a block and no EOT yet
  bool blocksHaveCrc = true;         // in this transfer
  bool askedForChecksum = false;     // its last request for blocks was NAK, not 'C'
};

class Decoder {
 public:
  std::vector<Frame> Decode(const Trace& trace) {
    for (const Record& record : trace.records) {
      Take(record);
    }
    CloseBlock(Side::Host);
    CloseBlock(Side::Device);
    return std::move(iFrames);
  }

 private:
  void Take(const Record& record) {
    switch (record.kind) {
      case Kind::Start:
        break;
      case Kind::Sent:
        TakeBytes(Side::Host, record);
        break;
      case Kind::Received:
        TakeBytes(Side::Device, record);
        break;
      case Kind::Opened:
        BeginAnew();
        Happened(Frame::Kind::Opened, record);
        break;
      case Kind::Lost:
        Happened(Frame::Kind::Lost, record);
        break;
      case Kind::Closed:
        Happened(Frame::Kind::Closed, record);
        break;
      case Kind::Log:
        Happened(Frame::Kind::Log, record);
        break;
      case Kind::End:
        Happened(Frame::Kind::End, record);
        break;
    }
  }

  void Happened(Frame::Kind kind, const Record& record) {
    Frame frame = {kind};
    frame.begin_us = frame.end_us = record.time_us;
    frame.text = record.payload;
    iFrames.push_back(std::move(frame));
  }

  void BeginAnew() {
    CloseBlock(Side::Host);
    CloseBlock(Side::Device);
    for (Speaker& speaker : iSpeakers) {
      const std::uint64_t count = speaker.count;
      speaker = {};
      speaker.count = count;
    }
    iDeviceSends = false;
    iLastSpoken.reset();
  }

  void TakeBytes(Side side, const Record& record) {
    const std::optional<std::size_t> block = Of(Side::Device).block;
    // A host that answers does not wait for the rest of a block any more. Its own blocks are always whole.
    if (block && (side == Side::Host || record.time_us > iFrames[*block].end_us + kPatience_us)) {
      CloseBlock(Side::Device);
    }
    for (const char byte : record.payload) {
      TakeByte(side, byte, record.time_us);
      ++Of(side).count;
    }
  }

  void TakeByte(Side side, char byte, std::uint64_t time_us) {
    if (Of(side).block) {
      ContinueBlock(side, byte, time_us);
    } else if ((byte == kSoh || byte == kStx) && (side == Side::Host || iDeviceSends)) {
      BeginBlock(side, byte, time_us);
    } else {
      TakeSingle(side, byte, time_us);
    }
  }

  void BeginBlock(Side side, char byte, std::uint64_t time_us) {
    Speaker& speaker = Of(side);
    if (!speaker.inTransfer) {
      speaker.inTransfer = true;
      speaker.blocksHaveCrc = !Of(side == Side::Host ? Side::Device : Side::Host).askedForChecksum;
    }
    iDeviceSends = side == Side::Device;
    speaker.block = iFrames.size();
    Add(Frame::Kind::Block, side, byte, time_us);
    iFrames.back().hasCrc = speaker.blocksHaveCrc;
  }

  void ContinueBlock(Side side, char byte, std::uint64_t time_us) {
    Frame& block = iFrames[*Of(side).block];
    block.bytes += byte;
    block.end_us = time_us;
    if (block.bytes.size() == kHeader_bytes + DataSize(block.bytes) + TrailerSize(block)) {
      CloseBlock(side);
    }
  }

  // A block whose rest is missing is as far from right as one whose trailer is wrong.
  void CloseBlock(Side side) {
    if (!Of(side).block) {
      return;
    }
    Frame& block = iFrames[*Of(side).block];
    Of(side).block.reset();
    const std::size_t size = kHeader_bytes + DataSize(block.bytes) + TrailerSize(block);
    block.complete = block.bytes.size() == size;
    block.number = block.bytes.size() > 1 ? static_cast<int>(Byte(block.bytes[1])) : 0;
    block.numberRight =
        block.bytes.size() >= kHeader_bytes && Byte(block.bytes[1]) + Byte(block.bytes[2]) == 0xFF;
    if (block.complete) {
      for (std::size_t i = size - TrailerSize(block); i < size; ++i) {
        block.trailer = (block.trailer << 8) | Byte(block.bytes[i]);
      }
      block.computed = block.hasCrc ? Crc16(block.Data()) : Checksum(block.Data());
    }
    block.trailerRight = block.complete && block.trailer == block.computed;
  }

  void TakeSingle(Side side, char byte, std::uint64_t time_us) {
    const Frame::Kind kind = KindOf(byte);
    Speaker& speaker = Of(side);
    if (kind == Frame::Kind::CrcRequest) {
      speaker.askedForChecksum = false;
      iDeviceSends = iDeviceSends || side == Side::Host;
    } else if (kind == Frame::Kind::Nak) {
      speaker.askedForChecksum = true;
    } else if (kind == Frame::Kind::Eot || kind == Frame::Kind::Cancel) {
      speaker.inTransfer = false;
    }
    if (JoinsLast(kind, side)) {
      iFrames[*iLastSpoken].bytes += byte;
      iFrames[*iLastSpoken].end_us = time_us;
    } else {
      Add(kind, side, byte, time_us);
    }
  }

  // Rows of CAN and of strays are one frame each.
  bool JoinsLast(Frame::Kind kind, Side side) const {
    return (kind == Frame::Kind::Cancel || kind == Frame::Kind::Stray) && iLastSpoken &&
           iFrames[*iLastSpoken].kind == kind && iFrames[*iLastSpoken].side == side;
  }

  void Add(Frame::Kind kind, Side side, char byte, std::uint64_t time_us) {
    Frame frame = {kind, side, time_us, time_us, Of(side).count};
    frame.bytes = byte;
    iLastSpoken = iFrames.size();
    iFrames.push_back(std::move(frame));
  }

  Speaker& Of(Side side) { return iSpeakers[side == Side::Host ? 0 : 1]; }

  std::vector<Frame> iFrames;
  std::array<Speaker, 2> iSpeakers;
  std::optional<std::size_t> iLastSpoken;  // the last frame that consists of bytes
  bool iDeviceSends = false;               // the host has asked for blocks, and sent none since
};

}  // namespace

std::string_view Frame::Data() const {
  const std::string_view all = bytes;
  return all.size() <= kHeader_bytes ? std::string_view() : all.substr(kHeader_bytes, DataSize(bytes));
}

std::vector<Frame> FramesOf(const Trace& trace) {
  return Decoder().Decode(trace);
}

LogLine LogLineOf(const Frame& frame) {
  std::string_view text = frame.text;
  const auto takeWord = [&text] {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
  };
  const std::string_view level = takeWord();
  const std::string_view module = takeWord();
  return {level, module, text};
}

}  // namespace host::trace
