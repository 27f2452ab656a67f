#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "FakeXModem.h"
#include "ILoaderCallback.h"
#include "InjectedFailures.h"
#include "Journal.h"
#include "Lines.h"
#include "VirtualClock.h"

/// Notes what a session reports: "progress 144 of 145", "completed 1".
class JournalCallback : public ILoaderCallback {
 public:
  explicit JournalCallback(Journal& journal) : iJournal(journal) {}

  /// Called after the note, from within the report.
  std::function<void()> onProgress;
  std::function<void()> onCompleted;

  void Progress(TUint32 remaining, TUint32 total) override {
    iJournal.Note("progress " + std::to_string(remaining) + " of " + std::to_string(total));
    if (onProgress) {
      onProgress();
    }
  }

  void Completed(TBool successful) override {
    iJournal.Note("completed " + std::to_string(successful));
    if (onCompleted) {
      onCompleted();
    }
  }

  void Aborted() override { iJournal.Note("aborted"); }

 private:
  Journal& iJournal;
};

/// The four values of the timer's subscription.
inline TEvent TickEvent() {
  return {0, 0, 500, reinterpret_cast<const void*>(1)};
}

/// Everything around a session: a journal of what it logs, asks of the broker and reports, and its engine's
/// script.
class SessionFixture : public testing::Test {
 protected:
  SessionFixture() {
    virtual_clock::Reset();
    injected_failures::Reset();
  }
  ~SessionFixture() override { injected_failures::Reset(); }

  /// The next `n` ticks for `session`.
  static void Tick(IEventObserver& session, int n = 1) {
    for (int i = 0; i < n; ++i) {
      session.OnEvent(TickEvent());
    }
  }

  Journal iJournal;
  JournalLog iLog{iJournal};
  JournalBroker iBroker{iJournal};
  JournalCallback iCallback{iJournal};
  EngineScript iScript;
};
