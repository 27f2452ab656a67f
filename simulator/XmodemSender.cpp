#include "simulator/XmodemSender.h"

#include <algorithm>

namespace simulator {

XmodemSender::XmodemSender(std::vector<std::uint8_t>& output) : iOutput(output) {}

void XmodemSender::Start(const std::string& text, const SenderOptions& options, bool host_asks, Micros now) {
  iText = text;
  iOptions = options;
  iResult = TransferResult::kRunning;
  iOffset = 0;
  iNumber = 1;
  iBegun = iCanSeen = false;
  iBlocks = iErrors = iSilences = 0;
  iState = State::kWaitStart;
  iTimer = options.start_patience == kNever ? kNever : now + options.start_patience;
  if (host_asks) {
    Begin(Trailer::kCrc, now);
  }
}

void XmodemSender::Receive(std::uint8_t byte, Micros now) {
  switch (iState) {
    case State::kWaitStart:
      return OnStartByte(byte, now);
    case State::kWaitReply:
      return OnReply(byte, now);
    case State::kWaitEndReply:
      return OnEndReply(byte, now);
    case State::kEnded:
      return;
  }
}

void XmodemSender::Advance(Micros now) {
  if (now < iTimer) {
    return;
  }
  switch (iState) {
    case State::kWaitStart:
      return End(TransferResult::kSilence);
    case State::kWaitReply:
    case State::kWaitEndReply:
      return OnSilence(now);
    case State::kEnded:
      return;
  }
}

void XmodemSender::OnStartByte(std::uint8_t byte, Micros now) {
  if (iOptions.start_patience != kNever) {
    iTimer = now + iOptions.start_patience;
  }
  if (IsSecondCan(byte) && !iOptions.deaf_to_cancel) {
    return End(TransferResult::kCancelled);
  }
  if (byte == kCrcRequest) {
    return Begin(Trailer::kCrc, now);
  }
  if (byte == kNak) {
    return Begin(Trailer::kChecksum, now);
  }
  if (byte == kEot && iOptions.repeat_ack) {
    Send(kAck);
  }
}

void XmodemSender::OnReply(std::uint8_t byte, Micros now) {
  if (IsSecondCan(byte)) {
    return End(TransferResult::kCancelled);
  }
  if (byte == kAck) {
    return OnAck(now);
  }
  if (byte == kNak) {
    return OnNak(now);
  }
}

void XmodemSender::OnEndReply(std::uint8_t byte, Micros now) {
  if (IsSecondCan(byte)) {
    return End(TransferResult::kCancelled);
  }
  if (byte == kAck) {
    return End(TransferResult::kComplete);
  }
  if (byte == kNak) {
    return OnNak(now);
  }
}

void XmodemSender::Begin(Trailer trailer, Micros now) {
  iBegun = true;
  iCanSeen = false;
  iTrailer = trailer;
  SendBlock(now);
}

std::size_t XmodemSender::BlockSize() const {
  return iText.size() - iOffset <= kShortBlock ? kShortBlock : kLongBlock;
}

void XmodemSender::SendBlock(Micros now) {
  const std::size_t size = BlockSize();
  const std::string part = iText.substr(iOffset, size);
  std::vector<std::uint8_t> data(part.begin(), part.end());
  data.resize(size, 0);
  std::vector<std::uint8_t> frame = FrameBlock(iNumber, data, iTrailer);
  ++iBlocks;
  if (iOptions.damage_every > 0 && iBlocks % iOptions.damage_every == 0) {
    frame.back() = static_cast<std::uint8_t>(frame.back() ^ 0xFF);
  }
  iOutput.insert(iOutput.end(), frame.begin(), frame.end());
  Await(State::kWaitReply, now);
}

void XmodemSender::SendEot(Micros now) {
  Send(kEot);
  Await(State::kWaitEndReply, now);
}

void XmodemSender::OnAck(Micros now) {
  iErrors = iSilences = 0;
  iOffset += std::min(BlockSize(), iText.size() - iOffset);
  ++iNumber;
  if (iOffset < iText.size()) {
    return SendBlock(now);
  }
  SendEot(now);
}

void XmodemSender::OnNak(Micros now) {
  ++iErrors;
  iSilences = 0;
  if (iErrors > kMaxErrors) {
    Send(kCan);
    Send(kCan);
    return End(TransferResult::kTooManyErrors);
  }
  return iState == State::kWaitReply ? SendBlock(now) : SendEot(now);
}

void XmodemSender::OnSilence(Micros now) {
  ++iSilences;
  if (iSilences >= kMaxReplyWaits) {
    return End(TransferResult::kSilence);
  }
  return iState == State::kWaitReply ? SendBlock(now) : SendEot(now);
}

void XmodemSender::Await(State state, Micros now) {
  iState = state;
  iTimer = now + iOptions.reply_wait;
}

bool XmodemSender::IsSecondCan(std::uint8_t byte) {
  const bool second = byte == kCan && iCanSeen;
  iCanSeen = byte == kCan;
  return second;
}

void XmodemSender::End(TransferResult result) {
  iState = State::kEnded;
  iResult = result;
  iTimer = kNever;
}

}  // namespace simulator
