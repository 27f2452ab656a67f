#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simulator/DeviceList.h"
#include "simulator/Line.h"

/// A simulated device at the other side of a pseudo-terminal, served by a thread of its own. The line takes
/// no time.
class PluggedDevice {
 public:
  /// Throws when there is no pseudo-terminal to be had. Nothing is plugged in at first.
  PluggedDevice();
  ~PluggedDevice();
  PluggedDevice(const PluggedDevice&) = delete;
  PluggedDevice& operator=(const PluggedDevice&) = delete;

  /// The port's path for the host.
  const std::string& Port() const { return iPort; }

  /// Puts a new device of that kind, "can" or "sanyo", in the place of the old one. What was under way is
  /// lost.
  void Plug(const std::string& kind);

  /// What the device has been given to keep.
  std::vector<std::uint8_t> Flash() const;

  /// How many bytes the host has sent to the device.
  std::uint64_t BytesFromHost() const;

 private:
  void Serve();
  void Pump();

  int iMaster;
  int iSlave;
  std::string iPort;
  mutable std::mutex iMutex;
  std::unique_ptr<simulator::DeviceList> iDevices;
  std::unique_ptr<simulator::Line> iLine;
  std::uint64_t iBytesFromHost = 0;
  std::atomic<bool> iEnding{false};
  std::thread iThread;
};
