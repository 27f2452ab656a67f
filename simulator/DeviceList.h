#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "simulator/Bootloader.h"
#include "simulator/Device.h"
#include "simulator/Options.h"

namespace simulator {

/// Several devices that share one line, as if a switch handed it on: to the next device when one's update has
/// ended, back to the first one after the last, and also after a failure, since a host begins its list anew
/// then.
class DeviceList : public Device {
 public:
  /// Takes the devices; there must be at least one. With `once` the list ends after its last device.
  DeviceList(std::vector<std::unique_ptr<Bootloader>> devices, bool once);

  void PowerOn(Micros now) override;
  void Receive(std::uint8_t byte, Micros now) override;
  void Advance(Micros now) override;
  Micros NextTimer() const override;
  std::vector<std::uint8_t> TakeOutput() override;

  std::size_t Size() const { return iDevices.size(); }
  /// The device at a position from 0, for a look at its memories. Owned by the list.
  const Bootloader& At(std::size_t index) const { return *iDevices.at(index); }
  /// Position of the device that has the line now.
  std::size_t Current() const { return iCurrent; }
  /// Devices updated so far, over all rounds.
  std::uint64_t Updates() const { return iUpdates; }
  /// Updates that had begun and failed so far.
  std::uint64_t Failures() const { return iFailures; }
  /// With `once`: every device of the list was updated, and none listens any more.
  bool Finished() const { return iFinished; }

 private:
  void Settle(Micros now);
  void StartNext(Micros now);
  void StartOver(Micros now, bool host_asks);
  void Collect();

  std::vector<std::unique_ptr<Bootloader>> iDevices;
  bool iOnce;
  std::size_t iCurrent = 0;
  std::uint64_t iUpdates = 0;
  std::uint64_t iFailures = 0;
  bool iFinished = false;
  std::vector<std::uint8_t> iOutput;
};

/// A device to be made.
struct DevicePlan {
  std::string kind;  ///< "can" or "sanyo".
  Options options;
};

/// The devices of a list such as "can,sanyo", with faults where `options.faulty_device` wants them. The kinds
/// are taken as they stand.
std::vector<DevicePlan> PlanDevices(const std::string& kinds, const Options& options);

/// Makes the planned devices. Returns null if there is none or one of another kind. Power on before use.
std::unique_ptr<DeviceList> MakeDevices(const std::vector<DevicePlan>& plans, bool once);

/// Makes one device of kind "can" or "sanyo"; null if there is no such kind.
std::unique_ptr<Bootloader> MakeDevice(const std::string& kind, const Options& options);

}  // namespace simulator
