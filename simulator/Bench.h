#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "simulator/DeviceList.h"
#include "simulator/Line.h"
#include "simulator/Output.h"
#include "simulator/PseudoTerminal.h"
#include "simulator/Settings.h"

namespace simulator {

/// One line in real time: bytes between a pseudo-terminal and the devices. Whoever holds it waits until
/// Descriptor() is ready or NextWake() has come, then calls Step(). No thread of its own; moments count from
/// `now` of Start().
class Bench {
 public:
  /// `output` must outlive it.
  Bench(const Settings& settings, Output& output);

  /// Makes the port, tells its name on standard output, and switches the devices on. False, after a complaint
  /// on stderr, if there is no port or link to be had.
  bool Start(Micros now);
  /// Does what is due.
  void Step(Micros now);
  /// What to wait for besides the time; its descriptor is -1 if there is nothing.
  pollfd Waiting() const;
  /// When Step() has something to do if no byte comes before; kNever if nothing.
  Micros NextWake(Micros now) const;
  /// With `once` or after an unplugging: nothing more will happen, and the port is closed.
  bool HasEnded() const { return iPhase == Phase::kEnded; }
  /// Writes the dumps for the last time. Returns the line's exit code.
  int End();

 private:
  enum class Phase { kPlaying, kClosing, kEnded };

  bool IsOver(Micros now);
  void Play(Micros now);
  void Close(Micros now);
  void Dump();

  Settings iSettings;
  Output& iOutput;
  std::unique_ptr<DeviceList> iDevices;
  std::optional<PseudoTerminal> iPort;
  std::optional<Line> iLine;
  Phase iPhase = Phase::kPlaying;
  Micros iFailedAt = kNever;
  Micros iClosedAt = kNever;
  std::uint64_t iDumpedUpdates = 0;
  bool iDumped = true;
};

}  // namespace simulator
