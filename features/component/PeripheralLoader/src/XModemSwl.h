#pragma once

#include <pthread.h>

#include <atomic>
#include <string>
#include <vector>

#include "IEventBroker.h"
#include "ILoaderCallback.h"
#include "IXModem.h"

/// One peripheral's upload from start to end: a device's sequence runs on a worker thread, while ticks of the
/// broker's timer report its progress, notice a stall and report the end, exactly once.
///
/// The worker and the ticks share the four words of steps and flags, nothing else. Everything else that is
/// public belongs to the thread that delivers events. A derived class calls JoinWorker first thing in its
/// destructor.
class CXModemSwl : public IEventObserver, public IXModemCallback {
 public:
  ~CXModemSwl() override;

  /// A tick when type and id are 0; anything else is ignored.
  void OnEvent(const TEvent& event) override;

  /// The engine's progress in bytes, on the worker thread, turned into steps.
  void IXModemProgress(TInt32 left, TInt32 total) override;

  /// Starts the upload and returns at once; progress, and even completion, may be reported from within.
  virtual void StartUpload();

  /// The device's sequence, on the worker thread. Ends with Finish.
  virtual void Upload() = 0;

 protected:
  /// `engine` belongs to the session from now on; broker and callback must outlive it.
  CXModemSwl(IXModem* engine, IEventBroker& eventBroker, ILoaderCallback& callback,
             const std::string& fileName);

  /// Sets the size of the whole upload; called before anything is sent.
  void StartSteps(TInt32 totalSteps);

  /// Sends a command and reads its answer: 2 steps. ETrue exactly when it was accepted.
  TBool Command(const std::string& command);

  /// Sends a command and the file that it announces, and reads the answer: `weight` + 2 steps.
  TBool CommandWithFile(TInt32 weight, const std::string& command, const std::string& fileName);

  /// Sends a file without any command or answer: `weight` + 1 steps.
  TBool File(TInt32 weight, const std::string& fileName);

  /// Reads the text with which a bootloader starts: 1 step. Any text will do.
  TBool ReceiveAndCheckVersion();

  /// Tells the ticks that the sequence has ended.
  void Finish(TBool successful);

  /// Ends the timer's subscription.
  void UnsubscribeTimerEvent();

  /// Makes a worker that still runs give up, and waits for it.
  void JoinWorker();

  /// The worker thread's entry; `session` is a CXModemSwl*.
  static void* DoUpload(void* session);

  IEventBroker& iEventBroker;

  // Written by the worker, read by the ticks; a stall writes the flags from a tick. To the processor they are
  // plain loads and stores. What the ticks rely on is only the order of the stores.
  std::atomic<TInt32> iTotalSteps;
  std::atomic<TInt32> iRemainingSteps;
  std::atomic<TBool> iFailed;
  std::atomic<TBool> iFinished;

  std::string iFileName;
  IXModem* iXModem;
  ILoaderCallback& iCallback;
  TInt32 iWatchdog;
  TInt32 iFileStartSteps;
  TInt32 iFileWeight;
  TInt32 iLastReportedSteps;
  TBool iCompletionReported;
  TUint8* iAnswerBuffer;

 private:
  struct TSteps {
    TInt32 remaining;
    TInt32 total;
  };

  TBool SendCommand(const std::string& command);
  TBool SendWeighted(TInt32 weight, const std::string& fileName);
  TBool ReceiveAnswer();
  IXModem::TXModemError ReceiveText();
  void SpendStep();
  void SetRemainingSteps(TInt32 steps);
  TSteps SnapshotOfSteps() const;
  void ReportProgress();

  std::vector<pthread_t> iWorkers;

  static_assert(std::atomic<TInt32>::is_always_lock_free);
};
