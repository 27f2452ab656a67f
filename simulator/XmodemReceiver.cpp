#include "simulator/XmodemReceiver.h"

namespace simulator {

XmodemReceiver::XmodemReceiver(BlockTaker& taker, std::vector<std::uint8_t>& output)
    : iTaker(taker), iOutput(output) {}

void XmodemReceiver::Start(const ReceiverOptions& options, Micros now) {
  iOptions = options;
  iTrailerKind = options.trailer;
  iResult = TransferResult::kRunning;
  iLastNumber = 0;
  iAnyBlock = iHeaderSeen = iEotSeen = iCanSeen = false;
  iSoundBlocks = iErrors = iSilences = 0;
  Solicit(now);
}

void XmodemReceiver::Receive(std::uint8_t byte, Micros now) {
  iSilences = 0;
  switch (iState) {
    case State::kSoliciting:
      return OnFirstByte(byte, now);
    case State::kWaitBlock:
      return OnBlockStart(byte, now);
    case State::kNumber:
      iNumber = byte;
      return Expect(State::kComplement, now);
    case State::kComplement:
      return OnComplement(byte, now);
    case State::kData:
      return OnData(byte, now);
    case State::kTrailer:
      return OnTrailer(byte, now);
    case State::kLoneEot:
      return OnByteBehindEot(byte, now);
    case State::kPurging:
      iOnlyCrcRequest = false;
      iTimer = now + kQuiet;
      return;
    case State::kEnded:
      return;
  }
}

void XmodemReceiver::Advance(Micros now) {
  if (now < iTimer) {
    return;
  }
  switch (iState) {
    case State::kSoliciting:
    case State::kWaitBlock:
      return OnSilence(now);
    case State::kNumber:
    case State::kComplement:
    case State::kData:
    case State::kTrailer:
      return Complain(now);
    case State::kLoneEot:
      return iEotIsFirstByte ? OnFirstEot(now) : OnEot(now);
    case State::kPurging:
      return OnQuiet(now);
    case State::kEnded:
      return;
  }
}

void XmodemReceiver::Solicit(Micros now) {
  Send(iOptions.trailer == Trailer::kCrc ? kCrcRequest : kNak);
  iState = State::kSoliciting;
  iTimer = now + kSolicitPeriod;
}

void XmodemReceiver::OnFirstByte(std::uint8_t byte, Micros now) {
  if (IsSecondCan(byte)) {
    return End(TransferResult::kCancelled);
  }
  if (byte == kSoh || byte == kStx) {
    return BeginBlock(byte, now);
  }
  if (byte == kEot) {
    iEotIsFirstByte = true;
    HearEot(now);
  } else if (byte == kCrcRequest) {
    End(iEotSeen ? TransferResult::kEmpty : TransferResult::kPeerReceives);
  }
}

void XmodemReceiver::HearEot(Micros now) {
  iState = State::kLoneEot;
  iTimer = now + kEotQuiet;
}

// The EOT was none. A block that begins behind a stray one is a block all the same.
void XmodemReceiver::OnByteBehindEot(std::uint8_t byte, Micros now) {
  if (byte == kEot) {
    return HearEot(now);
  }
  if (byte == kSoh || byte == kStx) {
    return BeginBlock(byte, now);
  }
  Purge(byte, now);
}

// It may be the repeated end of the transfer before, its ACK lost, or the end of an empty file. The host
// shows which one it was by what it does next: an empty file is followed by its asking for data.
void XmodemReceiver::OnFirstEot(Micros now) {
  iEotSeen = true;
  Send(kAck);
  iState = State::kSoliciting;
  iTimer = now + kSolicitPeriod;
}

void XmodemReceiver::OnBlockStart(std::uint8_t byte, Micros now) {
  if (IsSecondCan(byte)) {
    return End(TransferResult::kCancelled);
  }
  switch (byte) {
    case kSoh:
    case kStx:
      return BeginBlock(byte, now);
    case kEot:
      iEotIsFirstByte = false;
      return HearEot(now);
    case kCan:
      return;
    default:
      return Purge(byte, now);
  }
}

void XmodemReceiver::BeginBlock(std::uint8_t start, Micros now) {
  iBlockSize = start == kSoh ? kShortBlock : kLongBlock;
  iData.clear();
  iTrailer.clear();
  Expect(State::kNumber, now);
}

void XmodemReceiver::Expect(State state, Micros now) {
  iState = state;
  iTimer = now + kByteGap;
}

void XmodemReceiver::OnComplement(std::uint8_t byte, Micros now) {
  if (iNumber + byte != 0xFF) {
    return Purge(byte, now);
  }
  iHeaderSeen = true;
  iKind = KindOfBlock();
  if (iKind == Kind::kAnew) {
    // In mid-transfer the host hears nothing but NAKs, so one that begins anew begins with checksums.
    iTrailerKind = Trailer::kChecksum;
  }
  Expect(State::kData, now);
}

XmodemReceiver::Kind XmodemReceiver::KindOfBlock() const {
  if (iNumber == static_cast<std::uint8_t>(iLastNumber + 1)) {
    return Kind::kNext;
  }
  if (iAnyBlock && iNumber == iLastNumber) {
    return Kind::kRepeated;
  }
  return iAnyBlock && iNumber == 1 ? Kind::kAnew : Kind::kForeign;
}

void XmodemReceiver::OnData(std::uint8_t byte, Micros now) {
  iData.push_back(byte);
  Expect(iData.size() == iBlockSize ? State::kTrailer : State::kData, now);
}

void XmodemReceiver::OnTrailer(std::uint8_t byte, Micros now) {
  iTrailer.push_back(byte);
  const std::size_t size = iTrailerKind == Trailer::kCrc ? 2 : 1;
  if (iTrailer.size() < size) {
    return Expect(State::kTrailer, now);
  }
  if (iTrailer != TrailerOf(iData, iTrailerKind)) {
    return Purge(byte, now);
  }
  OnSoundBlock(now);
}

void XmodemReceiver::OnSoundBlock(Micros now) {
  iErrors = 0;
  ++iSoundBlocks;
  if (iOptions.nak_every > 0 && iSoundBlocks % iOptions.nak_every == 0) {
    Send(kNak);
    return WaitForBlock(now);
  }
  switch (iKind) {
    case Kind::kNext:
    case Kind::kAnew:
      return Store(now);
    case Kind::kRepeated:
      Send(kAck);
      return WaitForBlock(now);
    case Kind::kForeign:
      return GiveUp(TransferResult::kOutOfSequence);
  }
}

void XmodemReceiver::Store(Micros now) {
  const bool first = !iAnyBlock || iKind == Kind::kAnew;
  if (!iTaker.TakeBlock(iData, first)) {
    return GiveUp(TransferResult::kNoRoom);
  }
  iAnyBlock = true;
  iLastNumber = iNumber;
  Send(kAck);
  WaitForBlock(now);
}

void XmodemReceiver::OnEot(Micros now) {
  // Before the first sound block there is nothing that could be complete.
  if (!iAnyBlock || (iOptions.nak_first_eot && !iEotSeen)) {
    iEotSeen = true;
    Send(kNak);
    return WaitForBlock(now);
  }
  Send(kAck);
  End(TransferResult::kComplete);
}

void XmodemReceiver::Purge(std::uint8_t byte, Micros now) {
  iOnlyCrcRequest = iState == State::kWaitBlock && byte == kCrcRequest;
  iState = State::kPurging;
  iTimer = now + kQuiet;
}

void XmodemReceiver::OnQuiet(Micros now) {
  if (iOnlyCrcRequest) {
    return End(TransferResult::kPeerReceives);
  }
  Complain(now);
}

void XmodemReceiver::OnSilence(Micros now) {
  ++iSilences;
  const bool soliciting = iState == State::kSoliciting;
  const int limit = soliciting ? iOptions.max_solicitations : kMaxBlockWaits;
  if (limit > 0 && iSilences >= limit) {
    return End(TransferResult::kSilence);
  }
  if (soliciting) {
    return Solicit(now);
  }
  Send(kNak);
  WaitForBlock(now);
}

void XmodemReceiver::Complain(Micros now) {
  iCanSeen = false;
  // Stray bytes before a transfer are no block: a NAK then would ask the host for checksums, and a count
  // would make the device give up on noise alone.
  if (!iHeaderSeen) {
    return Solicit(now);
  }
  ++iErrors;
  if (iErrors >= kMaxErrors) {
    return GiveUp(TransferResult::kTooManyErrors);
  }
  Send(kNak);
  WaitForBlock(now);
}

void XmodemReceiver::WaitForBlock(Micros now) {
  iState = State::kWaitBlock;
  iTimer = now + iOptions.block_wait;
}

bool XmodemReceiver::IsSecondCan(std::uint8_t byte) {
  const bool second = byte == kCan && iCanSeen;
  iCanSeen = byte == kCan;
  return second;
}

void XmodemReceiver::GiveUp(TransferResult result) {
  Send(kCan);
  Send(kCan);
  End(result);
}

void XmodemReceiver::End(TransferResult result) {
  iState = State::kEnded;
  iResult = result;
  iTimer = kNever;
}

}  // namespace simulator
