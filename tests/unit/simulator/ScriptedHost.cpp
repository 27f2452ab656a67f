#include "ScriptedHost.h"

#include <algorithm>

#include "simulator/Xmodem.h"

namespace simulator {

Bytes Filled(std::size_t count, std::uint8_t value) {
  return Bytes(count, value);
}

Bytes Pattern(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t index = 0; index < count; ++index) {
    bytes[index] = static_cast<std::uint8_t>(index * 7 + index / 128 + 1);
  }
  return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes FromText(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes PaddedToBlocks(Bytes data) {
  const std::size_t rest = data.size() % kLongBlock;
  const std::size_t last = rest == 0 ? 0 : (rest <= kShortBlock ? kShortBlock : kLongBlock);
  data.resize(data.size() - rest + last, 0);
  return data;
}

void ScriptedHost::Wait(Micros span) {
  iNow += span;
  iLine.Advance(iNow);
}

void ScriptedHost::Write(const Bytes& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const int count = iLine.HostWrite(bytes.data() + sent, bytes.size() - sent, iNow);
    if (count < 0) {
      return;
    }
    sent += static_cast<std::size_t>(count);
    if (sent < bytes.size()) {
      iNow = iLine.NextEvent(iNow);
      Read(0);
    }
  }
}

int ScriptedHost::Read(Micros patience) {
  const Micros deadline = iNow + patience;
  for (;;) {
    std::uint8_t byte = 0;
    const int count = iLine.HostRead(&byte, 1, iNow);
    if (count != 0) {
      return count < 0 ? kUnplugged : byte;
    }
    const Micros next = iLine.NextEvent(iNow);
    if (next > deadline) {
      iNow = deadline;
      iLine.Advance(iNow);
      return kNothing;
    }
    iNow = next;
  }
}

Bytes ScriptedHost::ReadAll(Micros quiet) {
  Bytes bytes;
  for (int byte = Read(quiet); byte >= 0; byte = Read(quiet)) {
    bytes.push_back(static_cast<std::uint8_t>(byte));
  }
  return bytes;
}

bool ScriptedHost::Send(const Bytes& data) {
  iNaks = 0;
  iStartCharacter = AwaitStart();
  if (iStartCharacter < 0) {
    return false;
  }
  std::uint8_t number = 1;
  for (std::size_t offset = 0; offset < data.size(); ++number) {
    const std::size_t left = data.size() - offset;
    const std::size_t size = left <= kShortBlock ? kShortBlock : kLongBlock;
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(offset);
    Bytes block(begin, begin + static_cast<std::ptrdiff_t>(std::min(size, left)));
    block.resize(size, 0);
    if (!SendBlock(number, block)) {
      return false;
    }
    offset += size;
  }
  return SendEot();
}

int ScriptedHost::AwaitStart() {
  for (;;) {
    const int byte = Read(20 * kSecond);
    if (byte < 0 || byte == kCrcRequest || byte == kNak) {
      return byte;
    }
  }
}

int ScriptedHost::AwaitReply() {
  int cans = 0;
  for (int failures = 0; failures < 10; ++failures) {
    const int byte = Read(5 * kSecond);
    cans = byte == kCan ? cans + 1 : 0;
    if (byte == kAck || byte == kNak || byte == kUnplugged || cans == 2) {
      return byte;
    }
  }
  return kNothing;
}

bool ScriptedHost::SendBlock(std::uint8_t number, const Bytes& data) {
  const Trailer trailer = iStartCharacter == kNak ? Trailer::kChecksum : Trailer::kCrc;
  for (int tries = 0; tries < 11; ++tries) {
    Write(FrameBlock(number, data, trailer));
    const int reply = AwaitReply();
    if (reply != kNak) {
      return reply == kAck;
    }
    ++iNaks;
  }
  return false;
}

bool ScriptedHost::SendEot() {
  for (int tries = 0; tries < 11; ++tries) {
    Write({kEot});
    const int reply = Read(5 * kSecond);
    if (reply == kAck) {
      return true;
    }
    if (reply == kCan || reply == kUnplugged) {
      return false;
    }
    iNaks += reply == kNak ? 1 : 0;
  }
  return false;
}

int ScriptedHost::AwaitBlockStart(bool ask) {
  int cans = 0;
  for (int failures = 0; failures < 10; ++failures) {
    if (ask) {
      Write({kCrcRequest});
    }
    const int byte = Read(5 * kSecond);
    cans = byte == kCan ? cans + 1 : 0;
    if (byte == kSoh || byte == kStx || byte == kEot || byte == kUnplugged || cans == 2) {
      return byte;
    }
  }
  return kNothing;
}

bool ScriptedHost::ReceiveBlock(std::uint8_t start, Bytes& data) {
  const std::size_t size = start == kSoh ? kShortBlock : kLongBlock;
  Bytes block;
  while (block.size() < size + 4) {
    const int byte = Read(5 * kSecond);
    if (byte < 0) {
      return false;
    }
    block.push_back(static_cast<std::uint8_t>(byte));
  }
  const Bytes body(block.begin() + 2, block.begin() + 2 + static_cast<std::ptrdiff_t>(size));
  const Bytes trailer(block.end() - 2, block.end());
  const bool sound = trailer == TrailerOf(body, Trailer::kCrc);
  if (sound) {
    data = data + body;
  }
  Write({sound ? kAck : kNak});
  return true;
}

std::optional<Bytes> ScriptedHost::Receive() {
  Bytes data;
  for (bool ask = true;; ask = false) {
    const int byte = AwaitBlockStart(ask);
    if (byte == kEot) {
      Write({kAck});
      Wait(iLine.HostWriteEnd() == kNever ? 0 : iLine.HostWriteEnd() - iNow);
      return data;
    }
    if (byte != kSoh && byte != kStx) {
      return std::nullopt;
    }
    ReceiveBlock(static_cast<std::uint8_t>(byte), data);
  }
}

std::string ScriptedHost::ReceiveText() {
  const std::optional<Bytes> data = Receive();
  return data ? std::string(data->begin(), std::find(data->begin(), data->end(), 0)) : "(none)";
}

std::string ScriptedHost::Command(const std::string& text) {
  return Send(text) ? ReceiveText() : "(not sent)";
}

std::string ScriptedHost::CommandWithFile(const std::string& text, const Bytes& file) {
  return Send(text) && Send(file) ? ReceiveText() : "(not sent)";
}

std::string ScriptedHost::UpdateCan(const Bytes& loader, const Bytes& image) {
  std::string answer = ReceiveText();
  if (answer == "(none)") {
    return answer;
  }
  answer = CommandWithFile("wr 1000", loader);
  answer = answer == "000" ? Command("gt 1000") : answer;
  answer = answer == "000" ? CommandWithFile("wr 8000", image) : answer;
  return answer == "000" ? Command("ck 8000") : answer;
}

}  // namespace simulator
