#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "simulator/Bootloader.h"

namespace simulator {

/// The CAN controller's bootloader: announces its version, then obeys "wr", "gt" and "ck" in any order, each
/// with a hexadecimal address, and answers "000" or a refusal. "ck" is the end of an update.
class CanBootloader : public Bootloader {
 public:
  explicit CanBootloader(const Options& options);

 private:
  enum class Stage { kVersion, kCommand, kFile, kAnswer };
  /// What the dialogue does after an answer.
  enum class AfterAnswer { kNextCommand, kUpdated, kRefusedCheck };

  void Begin(Micros now) override;
  void OnReceived(TransferResult result, Micros now) override;
  void OnSent(TransferResult result, Micros now) override;
  bool TakeBlock(const std::vector<std::uint8_t>& data, bool first) override;

  void ListenFor(Stage stage, Micros now);
  void TakeFileBlock(const std::vector<std::uint8_t>& data, bool first);
  void TakeCommandBlock(const std::vector<std::uint8_t>& data, bool first);
  void Obey(Micros now);
  void BeginWrite(Micros now);
  void EndWrite(Micros now);
  void Go(Micros now);
  void Check(Micros now);
  /// Tells `done` and answers "000", or, if `complaint` is not empty, tells that and refuses. A refusal that
  /// was ordered by the options comes before either.
  void Conclude(const std::string& done, const std::string& complaint, Micros now);
  void OnAnswered(Micros now);
  std::string OrderedRefusal();
  Memory* MemoryAt(std::uint64_t address);
  bool DiesInThisCommand(Micros now);

  Stage iStage = Stage::kVersion;
  AfterAnswer iAfterAnswer = AfterAnswer::kNextCommand;
  std::string iCommand;
  std::string iVerb;
  bool iAddressValid = false;
  std::uint64_t iAddress = 0;
  Memory* iTarget = nullptr;
  std::uint64_t iFileBytes = 0;
  bool iFileFits = true;
  std::vector<int> iOccurrences;
};

}  // namespace simulator
