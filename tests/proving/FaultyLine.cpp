#include "FaultyLine.h"

#include <algorithm>
#include <utility>

namespace proving {

namespace {

constexpr std::int64_t kByteTime_us = 87;  // 10 bits at 115200 baud

constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kCan = 0x18;

// Faults that wait for their byte to come out.
bool IsEvent(FaultKind kind) {
  return kind >= FaultKind::kReadError;
}

}  // namespace

void FaultyLine::Queue::Pop() {
  ++head;
  if (Empty()) {
    Clear();
  }
}

void FaultyLine::Queue::Clear() {
  bytes.clear();
  head = 0;
}

FaultyLine::FaultyLine(simulator::Device& device, std::vector<Fault> faults, LineWitness& witness)
    : iDevice(&device), iWitness(witness) {
  std::stable_sort(faults.begin(), faults.end(),
                   [](const Fault& left, const Fault& right) { return left.index < right.index; });
  for (const Fault& fault : faults) {
    (fault.direction == Direction::kOut ? iOut : iIn).faults.push_back(fault);
  }
  iDevice->PowerOn(iNow_us);
  Forward();
}

// ---- The host's side ----

bool FaultyLine::HostWrite(std::uint8_t byte, std::int64_t now_us) {
  if (iGone || std::exchange(iFailNextWrite, false)) {
    iHasFailedToWrite = true;
    return false;
  }
  NoteCancel(byte, now_us);
  iWitness.OnHostByte(Direction::kOut, byte, now_us);
  const Fault* fault = NextFault(iOut);
  if (fault == nullptr) {
    Put(iOut, byte, nullptr, false);
    return true;
  }
  return WriteWithFault(byte, *fault);
}

bool FaultyLine::WriteWithFault(std::uint8_t byte, const Fault& fault) {
  switch (fault.kind) {
    case FaultKind::kWriteError:
      iHasFailedToWrite = true;
      return false;
    case FaultKind::kGone:
      iHasFailedToWrite = true;
      Break();
      return false;
    case FaultKind::kReadError:
      iFailNextRead = true;
      break;
    case FaultKind::kReset:
      Put(iOut, byte, &fault, false);
      return true;
    case FaultKind::kAbort:
    case FaultKind::kInstall:
    case FaultKind::kDelete:
      iWitness.OnRequest(fault.kind);
      break;
    default:
      Send(iOut, byte, &fault);
      return true;
  }
  Put(iOut, byte, nullptr, false);
  return true;
}

int FaultyLine::HostRead(std::uint8_t& byte, std::int64_t now_us) {
  if (iGone || std::exchange(iFailNextRead, false)) {
    return -1;
  }
  if (iIn.NextArrival_us() > now_us) {
    return 0;
  }
  const Fault* event = iIn.Front().event;
  return event == nullptr ? Take(byte) : ReadWithEvent(byte, *event);
}

int FaultyLine::ReadWithEvent(std::uint8_t& byte, const Fault& fault) {
  iIn.bytes[iIn.head].event = nullptr;
  switch (fault.kind) {
    case FaultKind::kReadError:
      return -1;
    case FaultKind::kGone:
      Break();
      return -1;
    case FaultKind::kReset:
      iIn.Clear();
      iIn.free_us = iNow_us;
      ++iResets;
      ResetDevice();
      return 0;
    case FaultKind::kWriteError:
      iFailNextWrite = true;
      break;
    default:
      iWitness.OnRequest(fault.kind);
      break;
  }
  return Take(byte);
}

int FaultyLine::Take(std::uint8_t& byte) {
  byte = iIn.Front().value;
  iForgedAcks += iIn.Front().forgedAck ? 1U : 0U;
  iIn.Pop();
  iBurstBegins = true;
  iWitness.OnHostByte(Direction::kIn, byte, iNow_us);
  return 1;
}

// A burst is what the host writes without reading or waiting in between. One that begins with a CAN gives the
// transfer up: it has six of them, and nothing comes behind.
void FaultyLine::NoteCancel(std::uint8_t byte, std::int64_t now_us) {
  const bool begins = iBurstBegins || now_us != iLastWrite_us;
  iBurstBegins = false;
  iLastWrite_us = now_us;
  if (iCancelling) {
    const bool isNext = byte == kCan && !begins && iCansInARow < kCansOfACancel;
    iCansInARow += isNext ? 1U : 0U;
    iBytesBehindCancel += isNext ? 0U : 1U;
  } else if (begins && byte == kCan) {
    iCancelling = true;
    iCansInARow = 1;
    ++iCancels;
  }
}

// What is under way is lost. The device lives on and hears nothing.
void FaultyLine::Break() {
  iGone = true;
  iOut.Clear();
  iIn.Clear();
}

// A port drops what waits when it is made; whoever uses it begins afresh.
void FaultyLine::Opened(std::int64_t now_us) {
  while (iIn.NextArrival_us() <= now_us) {
    iIn.Pop();
  }
  iBurstBegins = true;
  iCancelling = false;
}

// ---- The device's side and the time ----

std::int64_t FaultyLine::AdvanceToArrival(std::int64_t limit_us) {
  // Bytes that nobody takes are no event.
  const bool waiting = iGone || iIn.NextArrival_us() <= iNow_us;
  for (;;) {
    const std::int64_t arrival_us = waiting ? kNever : iIn.NextArrival_us();
    const std::int64_t cause_us = std::min(iOut.NextArrival_us(), iDevice->NextTimer());
    if (std::min(arrival_us, cause_us) > limit_us) {
      return iNow_us = limit_us;
    }
    if (arrival_us <= cause_us) {
      return iNow_us = std::max(iNow_us, arrival_us);
    }
    iNow_us = std::max(iNow_us, cause_us);
    if (iOut.NextArrival_us() <= iNow_us) {
      DeliverToDevice();
    } else {
      iDevice->Advance(iNow_us);
      Forward();
    }
  }
}

void FaultyLine::DeliverToDevice() {
  const Byte byte = iOut.Front();
  iOut.Pop();
  if (byte.event != nullptr) {
    ++iResets;
    return ResetDevice();
  }
  iWitness.OnDelivered(byte.value, iNow_us);
  iDevice->Receive(byte.value, iNow_us);
  Forward();
}

void FaultyLine::ResetDevice() {
  iDevice->PowerOn(iNow_us);
  Forward();
}

void FaultyLine::Forward() {
  for (const std::uint8_t byte : iDevice->TakeOutput()) {
    if (!iGone) {
      Send(iIn, byte, NextFault(iIn));
    }
  }
}

void FaultyLine::Heal() {
  iGone = iFailNextRead = iFailNextWrite = false;
  for (Queue* queue : {&iOut, &iIn}) {
    queue->nextFault = queue->faults.size();
    queue->Clear();
    queue->free_us = iNow_us;
  }
}

void FaultyLine::Replace(simulator::Device& device) {
  iDevice = &device;
  ResetDevice();
}

// ---- Bytes and faults ----

// The fault of the byte that goes in now, if it has one. Of several the first counts.
const Fault* FaultyLine::NextFault(Queue& queue) {
  const std::uint32_t index = queue.count++;
  if (queue.nextFault == queue.faults.size() || queue.faults[queue.nextFault].index != index) {
    return nullptr;
  }
  const Fault* fault = &queue.faults[queue.nextFault];
  while (queue.nextFault != queue.faults.size() && queue.faults[queue.nextFault].index == index) {
    ++queue.nextFault;
  }
  ++iHappened;
  return fault;
}

void FaultyLine::Send(Queue& queue, std::uint8_t byte, const Fault* fault) {
  if (fault == nullptr) {
    return Put(queue, byte, nullptr, false);
  }
  if (IsEvent(fault->kind)) {
    return Put(queue, byte, fault, false);
  }
  switch (fault->kind) {
    case FaultKind::kDrop:
      return;
    case FaultKind::kFlip:
      return Put(queue, static_cast<std::uint8_t>(byte ^ (1U << fault->value)), nullptr, true);
    case FaultKind::kDouble:
      Put(queue, byte, nullptr, false);
      return Put(queue, byte, nullptr, true);
    case FaultKind::kInsert:
      Put(queue, static_cast<std::uint8_t>(fault->value), nullptr, true);
      return Put(queue, byte, nullptr, false);
    default:
      queue.free_us = std::max(queue.free_us, iNow_us) + std::int64_t{fault->value} * 1000;
      return Put(queue, byte, nullptr, false);
  }
}

void FaultyLine::Put(Queue& queue, std::uint8_t byte, const Fault* event, bool forged) {
  queue.free_us = std::max(queue.free_us, iNow_us) + kByteTime_us;
  queue.bytes.push_back({queue.free_us, event, byte, forged && byte == kAck});
}

}  // namespace proving
