#include "simulator/DeviceList.h"

#include <sstream>
#include <utility>

#include "simulator/CanBootloader.h"
#include "simulator/SanyoBootloader.h"

namespace simulator {

DeviceList::DeviceList(std::vector<std::unique_ptr<Bootloader>> devices, bool once)
    : iDevices(std::move(devices)), iOnce(once) {}

void DeviceList::PowerOn(Micros now) {
  iOutput.clear();
  iDevices[iCurrent]->TakeOutput();
  iFinished = false;
  iCurrent = 0;
  iDevices[iCurrent]->Start(now, 0, false, true);
  Settle(now);
}

void DeviceList::Receive(std::uint8_t byte, Micros now) {
  if (iFinished) {
    return;
  }
  iDevices[iCurrent]->Receive(byte, now);
  Settle(now);
}

void DeviceList::Advance(Micros now) {
  if (iFinished) {
    return;
  }
  iDevices[iCurrent]->Advance(now);
  Settle(now);
}

Micros DeviceList::NextTimer() const {
  return iFinished ? kNever : iDevices[iCurrent]->NextTimer();
}

std::vector<std::uint8_t> DeviceList::TakeOutput() {
  return std::exchange(iOutput, {});
}

void DeviceList::Settle(Micros now) {
  Collect();
  const Bootloader& device = *iDevices[iCurrent];
  switch (device.UpdateOutcome()) {
    case Outcome::kRunning:
      return;
    case Outcome::kUpdated:
      ++iUpdates;
      return StartNext(now);
    case Outcome::kFailed:
      ++iFailures;
      return StartOver(now, device.HostAsks());
    case Outcome::kUntouched:
      return StartOver(now, device.HostAsks());
  }
}

void DeviceList::StartNext(Micros now) {
  const bool last = iCurrent + 1 == iDevices.size();
  if (last && iOnce) {
    iFinished = true;
    return;
  }
  iCurrent = last ? 0 : iCurrent + 1;
  iDevices[iCurrent]->Start(now, 0, false, iCurrent == 0);
  Collect();
}

void DeviceList::StartOver(Micros now, bool host_asks) {
  iCurrent = 0;
  iDevices[iCurrent]->Start(now, Bootloader::kRestartPause, host_asks, true);
}

void DeviceList::Collect() {
  const std::vector<std::uint8_t> bytes = iDevices[iCurrent]->TakeOutput();
  iOutput.insert(iOutput.end(), bytes.begin(), bytes.end());
}

std::unique_ptr<Bootloader> MakeDevice(const std::string& kind, const Options& options) {
  if (kind == "can") {
    return std::make_unique<CanBootloader>(options);
  }
  if (kind == "sanyo") {
    return std::make_unique<SanyoBootloader>(options);
  }
  return nullptr;
}

std::vector<DevicePlan> PlanDevices(const std::string& kinds, const Options& options) {
  std::vector<DevicePlan> plans;
  std::stringstream list(kinds + ",");
  std::string kind;
  while (std::getline(list, kind, ',')) {
    plans.push_back(DevicePlan{kind, options});
    if (options.faulty_device != 0 && options.faulty_device != static_cast<int>(plans.size())) {
      plans.back().options.faults = Faults{};
    }
  }
  return plans;
}

std::unique_ptr<DeviceList> MakeDevices(const std::vector<DevicePlan>& plans, bool once) {
  std::vector<std::unique_ptr<Bootloader>> devices;
  for (const DevicePlan& plan : plans) {
    devices.push_back(MakeDevice(plan.kind, plan.options));
    if (devices.back() == nullptr) {
      return nullptr;
    }
  }
  if (devices.empty()) {
    return nullptr;
  }
  return std::make_unique<DeviceList>(std::move(devices), once);
}

}  // namespace simulator
