#include "FakeXModem.h"

#include <algorithm>

void EngineScript::Release() {
  const std::lock_guard<std::mutex> lock(iMutex);
  iReleased = true;
  iChanged.notify_all();
}

void EngineScript::WaitUntilBlocked() {
  std::unique_lock<std::mutex> lock(iMutex);
  iChanged.wait(lock, [this] { return iBlocked; });
}

std::vector<std::string> EngineScript::Calls() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iCalls;
}

int EngineScript::Stops() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iStops;
}

int EngineScript::Deletions() const {
  const std::lock_guard<std::mutex> lock(iMutex);
  return iDeletions;
}

EngineScript::Turn EngineScript::Begin(const std::string& call) {
  Turn turn;
  {
    std::unique_lock<std::mutex> lock(iMutex);
    iCalls.push_back(call);
    turn = iTurns[static_cast<int>(iCalls.size())];
    if (turn.blocks) {
      iBlocked = true;
      iChanged.notify_all();
      iChanged.wait(lock, [this] { return iReleased; });
      iBlocked = false;
    }
  }
  if (onOperation) {
    onOperation();
  }
  if (turn.action) {
    turn.action();
  }
  return turn;
}

void EngineScript::Stop() {
  const std::lock_guard<std::mutex> lock(iMutex);
  ++iStops;
  iReleased = true;
  iChanged.notify_all();
}

void EngineScript::Delete() {
  const std::lock_guard<std::mutex> lock(iMutex);
  ++iDeletions;
}

FakeXModem::~FakeXModem() {
  iScript.Delete();
}

IXModem::TXModemError FakeXModem::SendFile(const TChr* name, IXModemCallback& callback) {
  const EngineScript::Turn turn = iScript.Begin(std::string("SendFile ") + AsChar(name));
  if (turn.file) {
    turn.file(callback);
  }
  return turn.result;
}

IXModem::TXModemError FakeXModem::SendBuffer(const TUint8* buffer, TInt32 size) {
  return iScript.Begin("SendBuffer " + std::string(buffer, buffer + size)).result;
}

IXModem::TXModemError FakeXModem::ReceiveFile(const TChr* name) {
  return iScript.Begin(std::string("ReceiveFile ") + AsChar(name)).result;
}

IXModem::TXModemError FakeXModem::ReceiveBuffer(TUint8* buffer, TInt32 capacity, TInt32* received) {
  const EngineScript::Turn turn = iScript.Begin("ReceiveBuffer " + std::to_string(capacity));
  const auto room = static_cast<std::size_t>(capacity);
  const std::string answer = turn.answer.substr(0, room);
  std::copy(answer.begin(), answer.end(), buffer);
  *received = turn.count.value_or(static_cast<TInt32>(answer.size()));
  return turn.result;
}

void FakeXModem::Stop() {
  iScript.Stop();
}
