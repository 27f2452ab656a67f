// What the module's log tells of the dialogue with a device. The one place that knows the texts of the log,
// but for the prefix by which RunLog knows milestones.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ErrorCode.h"
#include "LineEar.h"
#include "Logging.h"
#include "PropertyStore.h"

namespace host {

/// Why an update failed, as far as the log tells.
struct Cause {
  ErrorCode code;
  std::string detail;  ///< a sentence for people: what happened, and during which step
};

/// A device begins with something.
struct DeviceStep {
  std::size_t device;  ///< position in the update list, from 0
  std::string text;    ///< such as "wr 1000, loader.bin"
};

/// How many bytes of the files were sent, and how many there are: to the present device, and to all.
struct SentBytes {
  std::size_t device;
  std::int64_t deviceBytes;
  std::int64_t deviceTotal;
  std::int64_t bytes;
  std::int64_t total;
};

/// A device of the update list with the files that it is sent.
struct PlannedDevice {
  std::string name;         ///< for people
  std::int64_t size_bytes;  ///< of its files together
};

/// The devices that an update list stands for, with the files as large as they are now.
std::vector<PlannedDevice> PlanOf(const PropertyMap& properties);

/// The devices' names, in the same order.
std::vector<std::string> NamesOf(const std::vector<PlannedDevice>& plan);

/// An error line as a reason to give to people: one that says what is not so is explained.
std::string ReasonFor(const std::string& line, const std::optional<Cause>& cause);

/// Whether an attempt at updating all devices begins with the logged text.
bool BeginsAnAttempt(std::string_view text);

/// Follows an update through the lines that are logged.
class LogFollower {
 public:
  using StepHandler = std::function<void(const DeviceStep&)>;
  using SentBytesHandler = std::function<void(const SentBytes&)>;

  using Hear = std::function<Hearing()>;

  /// The handlers, and `hear`, are called from within Take; they must not log.
  LogFollower(std::vector<PlannedDevice> plan, StepHandler onStep, SentBytesHandler onSentBytes,
              Hear hear = nullptr);

  /// Takes the next line, of whatever level. Any thread, but one at a time.
  void Take(const logging::TLine& line);

  /// Why the latest attempt has failed, if it has and if the log tells. Any thread.
  std::optional<Cause> WhyFailed();
  /// The same for any attempt so far, from 1.
  std::optional<Cause> WhyFailed(std::size_t attempt);

  /// The device and the step that the latest attempt is at; nothing before the first one. Any thread.
  std::optional<std::string> Place();

  /// The log tells that nothing but loader programs was sent, and that to memory. Any thread.
  bool OnlyMemoryWritten();

 private:
  std::string PresentPlace() const;
  void StartOver();
  void NextDevice();
  void Step(const std::string& text, const std::string& file);
  void EndFile();
  void TakeFileProgress(std::string_view text);
  void TakeAnswer(const std::string& answer);
  void NoteCommand();
  void BlameSilence(ErrorCode code, const std::string& otherwise);
  void Blame(ErrorCode code, const std::string& what);
  void BlameFor(const logging::TLine& line);
  void TellSentBytes();
  std::int64_t SizeOf(std::size_t device) const;

  const std::vector<PlannedDevice> iPlan;
  const StepHandler iOnStep;
  const SentBytesHandler iOnSentBytes;
  const Hear iHear;
  std::mutex iMutex;
  std::vector<std::optional<Cause>> iCauses;  ///< by attempt; the first is for what is logged before all
  std::string iStep;
  std::string iVersion;     ///< of the device
  bool iIsVague = false;    ///< the present cause: any other says more
  bool iIsGivenUp = false;  ///< what comes after that says nothing of the cause
  std::size_t iDevice = 0;
  int iCommands = 0;                       ///< to the device
  std::set<std::size_t> iMayBeIncomplete;  ///< devices, in whichever attempt
  std::int64_t iTotal = 0;
  std::int64_t iBefore = 0;       ///< bytes of the devices before
  std::int64_t iFilesBefore = 0;  ///< bytes of the device's files before
  std::int64_t iFileSize = 0;
  std::int64_t iFileSent = 0;
};

}  // namespace host
