#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "simulator/Memory.h"
#include "simulator/Micros.h"
#include "simulator/Options.h"
#include "simulator/XmodemReceiver.h"
#include "simulator/XmodemSender.h"

namespace simulator {

/// How one device's update stands.
enum class Outcome {
  kRunning,
  kUpdated,
  kFailed,
  kUntouched  ///< Ended before the host had done anything with this device.
};

/// What the bootloaders of all devices share: one transfer at a time in either direction, pauses, dying on
/// purpose, memories and milestones. The dialogue is the derived class's.
class Bootloader : private BlockTaker {
 public:
  /// How long a device needs to come up again after a failure. What is left of the old dialogue passes
  /// unheard.
  static constexpr Micros kRestartPause = 200 * kMillisecond;
  /// How long a device that the line was handed to waits to be noticed.
  static constexpr Micros kHandOverPatience = 60 * kSecond;

  Bootloader(const Bootloader&) = delete;
  Bootloader& operator=(const Bootloader&) = delete;
  ~Bootloader() override = default;

  /// Begins an update after `pause`. `host_asks`: the host has already asked for data. `patient`: wait for
  /// the host for ever.
  void Start(Micros now, Micros pause, bool host_asks, bool patient);
  void Receive(std::uint8_t byte, Micros now);
  void Advance(Micros now);
  Micros NextTimer() const;
  std::vector<std::uint8_t> TakeOutput();

  Outcome UpdateOutcome() const { return iOutcome; }
  /// True if the host's last word was its asking for data.
  bool HostAsks() const { return iHostAsks; }
  const std::string& Name() const { return iName; }
  const Memory& Ram() const { return iRam; }
  const Memory& Flash() const { return iFlash; }

 protected:
  Bootloader(std::string name, const Options& options);

  /// The device has come up.
  virtual void Begin(Micros now) = 0;
  virtual void OnReceived(TransferResult result, Micros now) = 0;
  virtual void OnSent(TransferResult result, Micros now) = 0;

  void Listen(int max_solicitations, Micros now);
  void SendVersion(Micros now);
  /// Sends `text` once the time for thinking has passed.
  void Answer(const std::string& text, Micros now);
  void Tell(const std::string& text, Micros now) const;
  void Succeed(Micros now);
  void Fail(const std::string& reason, Micros now);
  /// Ends the update as untouched: nothing to tell.
  void Leave();
  /// True, and dead from here, if this is the stage to die at.
  bool DiesAt(SilentStage stage, Micros now);
  void MarkTouched() { iTouched = true; }
  bool Patient() const { return iPatient; }
  bool HasBeenTouched() const { return iTouched; }
  /// The damage that a fault does to the first image in flash.
  void MaybeCorrupt(std::uint64_t address);

  Options iOptions;
  Memory iRam;
  Memory iFlash;

 private:
  enum class Activity { kStarting, kThinking, kSending, kReceiving, kSilent, kEnded };

  SenderOptions AnswerOptions() const;
  SenderOptions TextOptions() const;
  Micros Patience() const;
  bool CountByte(Micros now);
  void FallSilent(Micros now);
  void Settle(Micros now);
  void End(Outcome outcome);

  std::string iName;
  std::vector<std::uint8_t> iOutput;
  XmodemReceiver iReceiver;
  XmodemSender iSender;
  Activity iActivity = Activity::kEnded;
  Outcome iOutcome = Outcome::kRunning;
  Micros iPauseEnd = kNever;
  std::string iAnswer;
  bool iHostAsks = false;
  bool iPatient = true;
  bool iTouched = false;
  bool iHasDied = false;
  bool iHasCorrupted = false;
  std::uint64_t iBytesIn = 0;
};

}  // namespace simulator
