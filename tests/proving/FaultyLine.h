#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Fault.h"
#include "VirtualWorld.h"
#include "simulator/Device.h"

namespace proving {

/// Hears of what happens on a line.
class LineWitness {
 public:
  virtual ~LineWitness() = default;
  /// A byte that the host wrote, or one that it read.
  virtual void OnHostByte(Direction direction, std::uint8_t byte, std::int64_t now_us) = 0;
  /// A byte as it came out at the device.
  virtual void OnDelivered(std::uint8_t byte, std::int64_t now_us) = 0;
  /// A fault that is the controller's or the host's: kAbort, kInstall, kDelete.
  virtual void OnRequest(FaultKind kind) = 0;
};

/// A serial line of 115200 baud on which chosen bytes go wrong.
class FaultyLine : public IWorldLine {
 public:
  /// `device` is switched on at once. It and the witness must outlive the line. `faults` count the bytes from
  /// the beginning of the line's life.
  FaultyLine(simulator::Device& device, std::vector<Fault> faults, LineWitness& witness);

  bool HostWrite(std::uint8_t byte, std::int64_t now_us) override;
  int HostRead(std::uint8_t& byte, std::int64_t now_us) override;
  std::int64_t AdvanceToArrival(std::int64_t limit_us) override;
  void Opened(std::int64_t now_us) override;

  /// From now on nothing goes wrong any more, and a broken line is whole again. What is under way is lost.
  void Heal();
  /// Puts another device in the place of the one before and switches it on.
  void Replace(simulator::Device& device);

  /// Bytes so far that the host wrote, and that the device sent.
  std::uint32_t Count(Direction direction) const { return Of(direction).count; }
  /// Faults that have happened.
  std::uint32_t Happened() const { return iHappened; }
  /// Times that a fault reset the device.
  std::uint32_t Resets() const { return iResets; }
  /// ACKs that the host read and the device had not sent.
  std::uint32_t ForgedAcks() const { return iForgedAcks; }
  /// Transfers that the host gave up: bursts that begin with a CAN.
  std::uint32_t Cancels() const { return iCancels; }
  /// Bytes of a cancellation that are no CAN or more than six, and bytes behind it.
  std::uint32_t BytesBehindCancel() const { return iBytesBehindCancel; }
  /// CANs that are missing to make the last cancellation one of six.
  std::uint32_t CansMissing() const { return iCancelling ? kCansOfACancel - iCansInARow : 0; }
  /// Whether the host has found the line broken, or a write failed.
  bool HasFailedToWrite() const { return iHasFailedToWrite; }

 private:
  struct Byte {
    std::int64_t arrival_us;
    const Fault* event;  ///< what happens when it comes out; null for nothing
    std::uint8_t value;
    bool forgedAck;
  };
  struct Queue {
    std::vector<Byte> bytes;
    std::size_t head = 0;
    std::int64_t free_us = 0;
    std::uint32_t count = 0;
    std::vector<Fault> faults;  ///< by index
    std::size_t nextFault = 0;

    bool Empty() const { return head == bytes.size(); }
    const Byte& Front() const { return bytes[head]; }
    std::int64_t NextArrival_us() const { return Empty() ? kNever : Front().arrival_us; }
    void Pop();
    void Clear();
  };

  static constexpr std::int64_t kNever = INT64_MAX;
  static constexpr std::uint32_t kCansOfACancel = 6;

  const Queue& Of(Direction direction) const { return direction == Direction::kOut ? iOut : iIn; }
  void Put(Queue& queue, std::uint8_t byte, const Fault* event, bool forged);
  const Fault* NextFault(Queue& queue);
  void Send(Queue& queue, std::uint8_t byte, const Fault* fault);
  bool WriteWithFault(std::uint8_t byte, const Fault& fault);
  int ReadWithEvent(std::uint8_t& byte, const Fault& fault);
  int Take(std::uint8_t& byte);
  void Break();
  void NoteCancel(std::uint8_t byte, std::int64_t now_us);
  void DeliverToDevice();
  void Forward();
  void ResetDevice();

  simulator::Device* iDevice;
  LineWitness& iWitness;
  Queue iOut;
  Queue iIn;
  std::int64_t iNow_us = 0;
  bool iGone = false;
  bool iFailNextRead = false;
  bool iFailNextWrite = false;
  std::uint32_t iHappened = 0;
  std::uint32_t iResets = 0;
  std::uint32_t iForgedAcks = 0;
  bool iBurstBegins = true;
  bool iCancelling = false;
  bool iHasFailedToWrite = false;
  std::int64_t iLastWrite_us = 0;
  std::uint32_t iCancels = 0;
  std::uint32_t iCansInARow = 0;
  std::uint32_t iBytesBehindCancel = 0;
};

}  // namespace proving
