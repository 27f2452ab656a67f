#include "XModemSwl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Logging.h"

namespace {

constexpr TInt32 KAnswerSize = 1024;
constexpr TInt32 KWatchdogTicks = 80;
constexpr TInt32 KInitialSteps = 1;
constexpr TUint32 KTickPeriod_ms = 500;

constexpr char KSuccessAnswer[] = "000";
constexpr char KSendingCommand[] = "Sending command ";

TEvent TimerRecord() {
  const auto repeating = reinterpret_cast<const void*>(1);
  return {ETimerEvent, 0, KTickPeriod_ms, repeating};
}

}  // namespace

CXModemSwl::CXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
                       const std::string& fileName)
    : iEventBroker(eventBroker),
      iTotalSteps(KInitialSteps),
      iRemainingSteps(KInitialSteps),
      iFailed(EFalse),
      iFinished(EFalse),
      iFileName(fileName),
      iXModem(engine),
      iCallback(callback),
      iWatchdog(KWatchdogTicks),
      iFileStartSteps(0),
      iFileWeight(0),
      iLastReportedSteps(0),
      iCompletionReported(EFalse),
      // One byte more than is ever received, for the terminator of an answer of full length.
      iAnswerBuffer(static_cast<TUint8*>(std::malloc(KAnswerSize + 1))) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
}

CXModemSwl::~CXModemSwl() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  JoinWorker();
  UnsubscribeTimerEvent();
  delete iXModem;
  std::free(iAnswerBuffer);
}

// ---- Supervision, on the thread that delivers events ----

void CXModemSwl::StartUpload() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  const TEvent record = TimerRecord();
  iEventBroker.Subscribe(record, *this);
  pthread_t worker;
  if (pthread_create(&worker, nullptr, DoUpload, this) == 0) {
    iWorkers.push_back(worker);
  }
  // Without a worker nothing moves the steps, and the watchdog reports the failure.
  OnEvent(record);
}

void CXModemSwl::OnEvent(const TEvent& event) {
  if (event.type != ETimerEvent || event.id != 0) {
    return;
  }
  --iWatchdog;
  // Read before the steps: once the sequence is seen to have ended, so are its last steps.
  TBool finished = iFinished.load(std::memory_order_acquire);
  ReportProgress();
  if (iWatchdog == 0) {
    LOG_ERROR(logging::PeripheralLoader, "Timeout in polling for status in XModemSwl");
    Finish(EFalse);
    finished = ETrue;
  }
  if (finished == EFalse || iCompletionReported != EFalse) {
    return;
  }
  iCompletionReported = ETrue;
  iCallback.Completed(iFailed.load(std::memory_order_relaxed) == EFalse ? ETrue : EFalse);
  UnsubscribeTimerEvent();
}

void CXModemSwl::ReportProgress() {
  const TSteps steps = SnapshotOfSteps();
  if (steps.remaining == iLastReportedSteps) {
    return;
  }
  iWatchdog = KWatchdogTicks;
  iLastReportedSteps = steps.remaining;
  iCallback.Progress(static_cast<TUint32>(steps.remaining), static_cast<TUint32>(steps.total));
}

// Both words as they stood at one moment. StartSteps stores the remaining steps first and the total behind
// them, so while the total stays the same one torn pair can be met: new steps beside the initial total. It
// stands for the moment before.
CXModemSwl::TSteps CXModemSwl::SnapshotOfSteps() const {
  TSteps steps = {};
  do {
    steps.total = iTotalSteps.load(std::memory_order_acquire);
    steps.remaining = iRemainingSteps.load(std::memory_order_acquire);
  } while (steps.total != iTotalSteps.load(std::memory_order_acquire));
  if (steps.total == KInitialSteps) {
    steps.remaining = std::min(steps.remaining, KInitialSteps);
  }
  return steps;
}

void CXModemSwl::UnsubscribeTimerEvent() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  iEventBroker.Unsubscribe(TimerRecord(), *this);
}

void CXModemSwl::JoinWorker() {
  if (iWorkers.empty()) {
    return;
  }
  iXModem->Stop();
  for (const pthread_t worker : iWorkers) {
    pthread_join(worker, nullptr);
  }
  iWorkers.clear();
}

// ---- The dialogue, on the worker thread ----

void* CXModemSwl::DoUpload(void* session) {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  static_cast<CXModemSwl*>(session)->Upload();
  return nullptr;
}

void CXModemSwl::StartSteps(TInt32 totalSteps) {
  SetRemainingSteps(totalSteps);
  iTotalSteps.store(totalSteps, std::memory_order_release);
}

void CXModemSwl::Finish(TBool successful) {
  if (successful == EFalse) {
    iFailed.store(ETrue, std::memory_order_relaxed);
  }
  iFinished.store(ETrue, std::memory_order_release);
}

TBool CXModemSwl::Command(const std::string& command) {
  LOG_INFO(logging::PeripheralLoader, KSendingCommand << command);
  return SendCommand(command) && ReceiveAnswer();
}

TBool CXModemSwl::CommandWithFile(TInt32 weight, const std::string& command, const std::string& fileName) {
  LOG_INFO(logging::PeripheralLoader, KSendingCommand << command << " and file " << fileName);
  return SendCommand(command) && SendWeighted(weight, fileName) && ReceiveAnswer();
}

TBool CXModemSwl::File(TInt32 weight, const std::string& fileName) {
  LOG_INFO(logging::PeripheralLoader, "Sending file " << fileName);
  SpendStep();
  return SendWeighted(weight, fileName);
}

TBool CXModemSwl::ReceiveAndCheckVersion() {
  LOG_INTERFACE(logging::PeripheralLoader, "");
  const IXModem::TXModemError result = ReceiveText();
  if (result != IXModem::EXModemOk) {
    LOG_ERROR(logging::PeripheralLoader, "Error: " << result);
    return EFalse;
  }
  LOG_INFO(logging::PeripheralLoader, "Received version " << iAnswerBuffer);
  return ETrue;
}

void CXModemSwl::IXModemProgress(TInt32 left, TInt32 total) {
  LOG_INTERFACE(logging::PeripheralLoader, "Left " << left << " of " << total);
  // In 64 bits, so that the product of a large file does not overflow. An empty file is sent at once.
  const std::int64_t spent = total == 0 ? -std::int64_t{iFileWeight}
                                        : std::int64_t{iFileWeight} * (std::int64_t{left} - total) / total;
  SetRemainingSteps(static_cast<TInt32>(iFileStartSteps + spent));
}

TBool CXModemSwl::SendCommand(const std::string& command) {
  const TUint8* bytes = AsTChr(command);
  if (iXModem->SendBuffer(bytes, static_cast<TInt32>(command.size())) != IXModem::EXModemOk) {
    return EFalse;
  }
  SpendStep();
  return ETrue;
}

TBool CXModemSwl::SendWeighted(TInt32 weight, const std::string& fileName) {
  iFileStartSteps = iRemainingSteps.load(std::memory_order_relaxed);
  iFileWeight = weight;
  if (iXModem->SendFile(AsTChr(fileName), *this) != IXModem::EXModemOk) {
    return EFalse;
  }
  SetRemainingSteps(iFileStartSteps - iFileWeight);
  return ETrue;
}

TBool CXModemSwl::ReceiveAnswer() {
  if (ReceiveText() != IXModem::EXModemOk) {
    return EFalse;
  }
  LOG_INFO(logging::PeripheralLoader, "Received answer " << iAnswerBuffer);
  return std::strcmp(AsChar(iAnswerBuffer), KSuccessAnswer) == 0 ? ETrue : EFalse;
}

// What the device sends, zero-terminated in the answer buffer.
IXModem::TXModemError CXModemSwl::ReceiveText() {
  if (iAnswerBuffer == nullptr) {
    return IXModem::EXModemFileError;
  }
  TInt32 count = 0;
  const IXModem::TXModemError result = iXModem->ReceiveBuffer(iAnswerBuffer, KAnswerSize, &count);
  if (result == IXModem::EXModemOk) {
    SpendStep();
    iAnswerBuffer[std::clamp(count, 0, KAnswerSize)] = 0;
  }
  return result;
}

void CXModemSwl::SpendStep() {
  SetRemainingSteps(iRemainingSteps.load(std::memory_order_relaxed) - 1);
}

void CXModemSwl::SetRemainingSteps(TInt32 steps) {
  iRemainingSteps.store(steps, std::memory_order_release);
}
