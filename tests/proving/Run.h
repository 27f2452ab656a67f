#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FaultyLine.h"
#include "IFeatureModule2.h"
#include "Logging.h"
#include "Observation.h"
#include "RecordingBroker.h"
#include "Scenario.h"
#include "SourceFolder.h"
#include "TransferWatch.h"
#include "VirtualWorld.h"
#include "simulator/DeviceList.h"

namespace proving {

/// Is told all that happens in a run, for people.
class Recorder {
 public:
  virtual ~Recorder() = default;
  virtual void OnByte(std::int64_t time_us, Direction direction, std::uint8_t byte) = 0;
  virtual void OnLine(std::int64_t time_us, const std::string& text) = 0;
};

/// One run in a world of its own: the module from its creation on, the devices of the scenario, an
/// installation in which the scenario's faults happen, and an update afterwards on a line without faults.
class Run : private IEventObserver, private IEventBroker, private logging::ISink, private LineWitness {
 public:
  /// `recorder` may be null.
  Run(const Scenario& scenario, SourceFolder& sources, Recorder* recorder = nullptr);
  ~Run() override;

  Observation Observe();

 private:
  // The controller.
  void OnEvent(const TEvent& event) override;
  void OnResult(bool success);
  void OnProgress(int percent);
  void Request(std::uint32_t id);
  bool Prepare();
  void Install();
  void Recover();

  // Witness of the world's broker.
  void Subscribe(const TEvent& filter, IEventObserver& observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
  void Post(const TEvent& event) override;

  void Write(const logging::TLine& line) override;
  void OnHostByte(Direction direction, std::uint8_t byte, std::int64_t now_us) override;
  void OnDelivered(std::uint8_t byte, std::int64_t now_us) override;
  void OnRequest(FaultKind kind) override;

  void CreateModule();
  void DeleteModule();
  void SwitchOnDevices(const simulator::Options& options);
  void JudgeSuccess();
  void JudgeBlocks();
  bool DevicesHoldImage() const;
  void CheckPayload(const TEvent& event);
  void NoteVerdict(std::string_view message);
  void NoteSign();
  void Mix(std::uint64_t value);
  void Tell(const std::string& text);

  const Scenario& iScenario;
  SourceFolder& iSources;
  Recorder* iRecorder;
  logging::ISink* iPreviousSink;
  VirtualWorld iWorld;
  FakeProperties iProperties;
  FakeInterfaceBroker iInterfaceBroker;
  std::vector<std::unique_ptr<simulator::DeviceList>> iDevices;  ///< the last is the one on the line
  std::unique_ptr<FaultyLine> iLine;
  std::unique_ptr<IFeatureModule2> iModule;
  Observation iSeen;
  std::vector<std::uint8_t> iExpected;
  std::optional<bool> iPreparation;
  bool iRecovering = false;
  bool iModuleExists = false;
  bool iSettled = false;
  std::uint32_t iRecoveryResults = 0;
  std::uint32_t iRecoverySuccesses = 0;
  std::uint32_t iChecksPassed = 0;
  bool iInstallsTwice = false;
  bool iHeldWhenUpdated = false;
  int iLastPercent = 0;
  std::int64_t iLastSign_us = 0;
  bool iStartByteRead = false;
  bool iBurstBegins = true;
  std::int64_t iLastWrite_us = 0;
  std::int64_t iLastRead_us = 0;
  TransferWatch iTransfers;
  std::uint32_t iVerdicts = 0;
  std::size_t iOwnSubscriptions = 0;
};

}  // namespace proving
