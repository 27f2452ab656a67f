#include "simulator/Bootloader.h"

#include <utility>

namespace simulator {

Bootloader::Bootloader(std::string name, const Options& options)
    : iOptions(options),
      iRam(options.ram_base, options.ram_size),
      iFlash(options.flash_base, options.flash_size),
      iName(std::move(name)),
      iReceiver(*this, iOutput),
      iSender(iOutput) {}

void Bootloader::Start(Micros now, Micros pause, bool host_asks, bool patient) {
  iOutcome = Outcome::kRunning;
  iHostAsks = host_asks;
  iPatient = patient;
  iTouched = false;
  iActivity = Activity::kStarting;
  iPauseEnd = now + pause;
  if (pause == 0) {
    Advance(now);
  }
}

void Bootloader::Receive(std::uint8_t byte, Micros now) {
  if (iActivity == Activity::kEnded || iActivity == Activity::kSilent || !CountByte(now)) {
    return;
  }
  switch (iActivity) {
    case Activity::kStarting:
    case Activity::kThinking:
      iHostAsks = iHostAsks || byte == kCrcRequest;
      return;
    case Activity::kSending:
      iSender.Receive(byte, now);
      break;
    case Activity::kReceiving:
      iReceiver.Receive(byte, now);
      break;
    case Activity::kSilent:
    case Activity::kEnded:
      return;
  }
  iHostAsks = byte == kCrcRequest;
  Settle(now);
}

void Bootloader::Advance(Micros now) {
  if (now < NextTimer()) {
    return;
  }
  switch (iActivity) {
    case Activity::kStarting:
      if (!DiesAt(SilentStage::kStart, now)) {
        Begin(now);
      }
      return;
    case Activity::kThinking:
      iActivity = Activity::kSending;
      iSender.Start(iAnswer, AnswerOptions(), iHostAsks, now);
      return;
    case Activity::kSending:
      iSender.Advance(now);
      break;
    case Activity::kReceiving:
      iReceiver.Advance(now);
      break;
    case Activity::kSilent:
    case Activity::kEnded:
      return;
  }
  Settle(now);
}

Micros Bootloader::NextTimer() const {
  switch (iActivity) {
    case Activity::kStarting:
    case Activity::kThinking:
      return iPauseEnd;
    case Activity::kSending:
      return iSender.NextTimer();
    case Activity::kReceiving:
      return iReceiver.NextTimer();
    case Activity::kSilent:
    case Activity::kEnded:
      break;
  }
  return kNever;
}

std::vector<std::uint8_t> Bootloader::TakeOutput() {
  return std::exchange(iOutput, {});
}

void Bootloader::Listen(int max_solicitations, Micros now) {
  ReceiverOptions options;
  options.trailer = iOptions.faults.checksum ? Trailer::kChecksum : Trailer::kCrc;
  options.max_solicitations = max_solicitations;
  options.block_wait = Patience() / XmodemReceiver::kMaxBlockWaits;
  options.nak_every = iOptions.faults.nak_every;
  options.nak_first_eot = iOptions.faults.nak_first_eot;
  iActivity = Activity::kReceiving;
  iReceiver.Start(options, now);
}

void Bootloader::SendVersion(Micros now) {
  SenderOptions options = TextOptions();
  options.start_patience = iPatient ? kNever : kHandOverPatience;
  options.deaf_to_cancel = true;
  iActivity = Activity::kSending;
  iSender.Start(iOptions.version_text, options, iHostAsks, now);
}

SenderOptions Bootloader::AnswerOptions() const {
  SenderOptions options = TextOptions();
  options.repeat_ack = true;
  return options;
}

SenderOptions Bootloader::TextOptions() const {
  SenderOptions options;
  options.start_patience = Patience();
  options.reply_wait = Patience() / XmodemSender::kMaxReplyWaits;
  options.damage_every = iOptions.faults.damage_every;
  return options;
}

Micros Bootloader::Patience() const {
  return iOptions.patience_s * kSecond;
}

void Bootloader::Answer(const std::string& text, Micros now) {
  iAnswer = text;
  iActivity = Activity::kThinking;
  iPauseEnd = now + iOptions.faults.slow_ms * kMillisecond;
  if (iPauseEnd == now) {
    Advance(now);
  }
}

void Bootloader::Tell(const std::string& text, Micros now) const {
  if (iOptions.on_milestone) {
    iOptions.on_milestone(Milestone{now, iName, text});
  }
}

void Bootloader::Succeed(Micros now) {
  Tell("updated", now);
  End(Outcome::kUpdated);
}

void Bootloader::Fail(const std::string& reason, Micros now) {
  Tell("failed: " + reason, now);
  End(Outcome::kFailed);
}

void Bootloader::Leave() {
  End(Outcome::kUntouched);
}

bool Bootloader::DiesAt(SilentStage stage, Micros now) {
  if (iHasDied || iOptions.faults.silent_after.stage != stage) {
    return false;
  }
  FallSilent(now);
  return true;
}

void Bootloader::MaybeCorrupt(std::uint64_t address) {
  if (iOptions.faults.corrupt_flash && !iHasCorrupted && iFlash.Holds(address)) {
    iHasCorrupted = true;
    iFlash.Damage(address);
  }
}

bool Bootloader::CountByte(Micros now) {
  ++iBytesIn;
  if (iOptions.faults.silent_after.bytes == iBytesIn && DiesAt(SilentStage::kBytes, now)) {
    return false;
  }
  if (iOptions.faults.cancel_after_bytes == iBytesIn) {
    iOutput.insert(iOutput.end(), {kCan, kCan});
    iHostAsks = false;
    Fail("cancelled on purpose", now);
    return false;
  }
  return true;
}

void Bootloader::FallSilent(Micros now) {
  iHasDied = true;
  iActivity = Activity::kSilent;
  Tell("silent from here", now);
}

void Bootloader::Settle(Micros now) {
  if (iActivity == Activity::kSending) {
    iTouched = iTouched || iSender.Begun();
    if (iSender.Result() != TransferResult::kRunning) {
      OnSent(iSender.Result(), now);
    }
  } else if (iReceiver.Result() != TransferResult::kRunning) {
    OnReceived(iReceiver.Result(), now);
  }
}

void Bootloader::End(Outcome outcome) {
  iActivity = Activity::kEnded;
  iOutcome = outcome;
}

}  // namespace simulator
