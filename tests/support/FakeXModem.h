#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "IXModem.h"

/// What an engine is to do and what was asked of it. It belongs to the test and outlives the engine, which
/// belongs to a session. Operations are counted from 1, all kinds together.
class EngineScript {
 public:
  /// What one operation does.
  struct Turn {
    IXModem::TXModemError result = IXModem::EXModemOk;
    std::string answer = "000";    ///< what a receive puts into the buffer
    std::optional<TInt32> count;   ///< what it tells to have received, if not the answer's length
    bool blocks = false;           ///< it hangs until Release or Stop
    std::function<void()> action;  ///< called when it begins
    std::function<void(IXModemCallback&)> file;  ///< called by a sending of a file
  };

  /// The turn of the n-th operation; operations without one succeed, and receive "000".
  Turn& At(int n) { return iTurns[n]; }
  /// Called at the beginning of every operation.
  std::function<void()> onOperation;

  /// Ends the hanging of the present and of all later operations.
  void Release();
  /// Returns when an operation hangs.
  void WaitUntilBlocked();

  /// "ReceiveBuffer 1024", "SendBuffer wr 1000", "SendFile /name", "ReceiveFile /name", in order.
  std::vector<std::string> Calls() const;
  int Stops() const;
  int Deletions() const;

 private:
  friend class FakeXModem;

  Turn Begin(const std::string& call);
  void Stop();
  void Delete();

  mutable std::mutex iMutex;
  std::condition_variable iChanged;
  std::map<int, Turn> iTurns;
  std::vector<std::string> iCalls;
  bool iReleased = false;
  bool iBlocked = false;
  int iStops = 0;
  int iDeletions = 0;
};

/// An engine that does what its script says.
class FakeXModem : public IXModem {
 public:
  explicit FakeXModem(EngineScript& script) : iScript(script) {}
  ~FakeXModem() override;

  TXModemError SendFile(const TChr* name, IXModemCallback& callback) override;
  TXModemError SendBuffer(const TUint8* buffer, TInt32 size) override;
  TXModemError ReceiveFile(const TChr* name) override;
  TXModemError ReceiveBuffer(TUint8* buffer, TInt32 capacity, TInt32* received) override;
  void Stop() override;

 private:
  EngineScript& iScript;
};
