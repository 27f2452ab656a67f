#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "IFeatureModule2.h"
#include "LogCapture.h"
#include "RecordingBroker.h"
#include "VirtualWorld.h"
#include "simulator/DeviceList.h"
#include "simulator/Line.h"

/// A simulated line as the world sees it.
class SimulatedLine : public IWorldLine {
 public:
  SimulatedLine(simulator::Device& device, const simulator::LineOptions& options)
      : iLine(device, options, 0) {}

  bool HostWrite(std::uint8_t byte, std::int64_t now_us) override {
    return iLine.HostWrite(&byte, 1, now_us) == 1;
  }
  int HostRead(std::uint8_t& byte, std::int64_t now_us) override { return iLine.HostRead(&byte, 1, now_us); }
  std::int64_t AdvanceToArrival(std::int64_t limit_us) override;

  simulator::Line& Get() { return iLine; }

 private:
  simulator::Line iLine;
  std::int64_t iNow_us = 0;
};

/// A head unit in simulated time: the module as FeatureCreate2 makes it, a controller that writes down what
/// it is told, and simulated devices on one line.
class UpdateBench : private IEventObserver {
 public:
  struct Told {
    std::int64_t time_us;
    std::string text;  ///< "202 1", "205 37 %", "204 0"
  };

  UpdateBench(const std::string& devices, const simulator::Options& options,
              const simulator::LineOptions& lineOptions = {});
  ~UpdateBench() override;

  /// Makes the two source files anew, with bytes from a fixed seed.
  void MakeFiles(std::size_t loaderSize, std::size_t imageSize);

  /// Posts a request: 201, 203 or 206.
  void Request(std::uint32_t id);

  /// Lets time pass until an event of this id has been told once more than before the call. False when it is
  /// not within the limit.
  bool WaitFor(std::uint32_t id, std::int64_t limit_ms = 600'000);

  /// Prepare, install, and the result: whether 204 came with ETrue.
  bool Update();

  /// Deletes the module.
  void DeleteModule() { iModule.reset(); }

  /// What the controller was told, without the times; and with them.
  std::vector<std::string> Events() const;
  const std::vector<Told>& Timeline() const { return iTold; }

  /// The percentages of all 205 so far.
  std::vector<int> Percentages() const;

  /// Whether a device's memory holds the file at its address, filled up with zeros to a block's end.
  bool RamHoldsLoader(std::size_t device) const;
  bool FlashHoldsImage(std::size_t device) const;

  VirtualWorld& World() { return iWorld; }
  FakeProperties& Properties() { return iProperties; }
  simulator::DeviceList& Devices() { return *iDevices; }
  IWorldLine& WorldLine() { return *iLine; }
  simulator::Line& Line() { return iLine->Get(); }
  LogCapture& Log() { return iLog; }
  const std::vector<std::uint8_t>& Image() const { return iImage; }
  std::string PathOf(const std::string& name) const { return (iFolder / name).string(); }

  static constexpr char kFeatureId[] = "can-controller";

 private:
  void OnEvent(const TEvent& event) override;
  std::size_t CountTold(std::uint32_t id) const;

  LogCapture iLog;
  VirtualWorld iWorld;
  std::filesystem::path iFolder;
  std::unique_ptr<simulator::DeviceList> iDevices;
  std::unique_ptr<SimulatedLine> iLine;
  FakeProperties iProperties;
  FakeInterfaceBroker iInterfaceBroker;
  std::vector<Told> iTold;
  std::vector<std::uint8_t> iLoader;
  std::vector<std::uint8_t> iImage;
  std::unique_ptr<IFeatureModule2> iModule;
};
